// Sequences of batches, valid, invalid and damaged, through the server's receive path: a real
// queue pair, the worker, and a store in a folder.
//
// Reaches the state between batches, which the other targets do not have: streams that are opened
// twice, broken, ended or never begun, segments out of order, answers, receipts and files.

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <filesystem>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <string>
#include <vector>

#include <orvane/server_status.hpp>
#include "require.hpp"
#include "store/store.hpp"
#include "worker/queue_pair.hpp"
#include "worker/worker.hpp"

using boost::interprocess::message_queue;
using orvane::BatchView;
using orvane::pvk_shm_message_t;
using orvane::pvk_shm_response_t;
using orvane::ShmBatch;

namespace {

constexpr std::size_t kMessageSize = 2000;

// One pair for all inputs; its name goes when the fuzzer ends.
struct Server {
  Server() {
    ox::setSink([](ox::Kind, int, const char*) {});  // refusals are logged, thousands a second
    std::filesystem::create_directory(folder);
  }
  ~Server() { std::filesystem::remove_all(folder); }

  const std::string name = "orvane_fuzz." + std::to_string(getpid());
  const std::filesystem::path folder = "/dev/shm/" + name + "-store";  // a disk is far slower
  orvaned::QueuePair queues{name, {8, kMessageSize, 0600}};
  message_queue producer{boost::interprocess::open_only, name.c_str()};
  message_queue answers{boost::interprocess::open_only,
                        orvane::getMessageQueueResponseName(name).c_str()};
};

ShmBatch& validBytes(FuzzedDataProvider& input) {
  static ShmBatch batch(kMessageSize);
  batch.clear();
  const int records = input.ConsumeIntegralInRange<int>(0, 6);
  for (int i = 0; i < records; ++i) {
    const std::vector<unsigned char> data =
        input.ConsumeBytes<unsigned char>(input.ConsumeIntegralInRange<std::size_t>(0, 200));
    pvk_shm_message_t header;
    header.type = input.ConsumeIntegralInRange<std::uint32_t>(0, 6);
    header.seqNo = input.ConsumeIntegralInRange<std::uint64_t>(0, 20);
    header.segmentNo = input.ConsumeIntegralInRange<std::uint64_t>(0, 3);
    header.segmentDone = input.ConsumeIntegralInRange<std::uint32_t>(0, 1);
    header.len = static_cast<std::uint32_t>(data.size());
    batch.pushBack(ShmBatch::Entry(header, data.data()));
  }
  return batch;
}

std::vector<unsigned char> someMessage(FuzzedDataProvider& input) {
  if (input.ConsumeIntegralInRange<int>(0, 3) == 0) {
    return input.ConsumeBytes<unsigned char>(
        input.ConsumeIntegralInRange<std::size_t>(0, kMessageSize));
  }
  const ShmBatch& batch = validBytes(input);
  std::vector<unsigned char> bytes(batch.getRaw(), batch.getRaw() + batch.getRawSize());
  if (input.ConsumeIntegralInRange<int>(0, 3) == 0) {
    bytes[input.ConsumeIntegralInRange<std::size_t>(0, bytes.size() - 1)] ^=
        input.ConsumeIntegralInRange<unsigned char>(1, 255);
  }
  return bytes;
}

bool isWholeBatch(const std::vector<unsigned char>& bytes) {
  try {
    BatchView(bytes.data(), bytes.size());
    return true;
  } catch (const Ox_ErrnoException&) {
    return false;
  }
}

pvk_shm_response_t takeAnswer(Server& server) {
  pvk_shm_response_t answer;
  message_queue::size_type size = 0;
  unsigned int priority = 0;
  REQUIRE(server.answers.try_receive(&answer, sizeof answer, size, priority));
  REQUIRE(size == sizeof answer);
  REQUIRE(server.answers.get_num_msg() == 0);
  return answer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  static Server server;
  FuzzedDataProvider input(data, size);
  {
    orvaned::Store store(server.folder.string(), server.name, orvaned::Sync::none);
    orvaned::Worker worker(server.name, server.queues, store);
    while (input.remaining_bytes() > 0) {
      const std::vector<unsigned char> message = someMessage(input);
      const unsigned char none = 0;  // an empty vector has no address
      const unsigned char* const bytes = message.empty() ? &none : message.data();
      REQUIRE(server.producer.try_send(bytes, message.size(), 1));
      REQUIRE(worker.runOnce());
      const pvk_shm_response_t answer = takeAnswer(server);
      if (isWholeBatch(message)) {
        REQUIRE(answer.status == 0 || answer.status >= orvane::kBadBatch);
      } else {
        REQUIRE(answer.status >= orvane::kBadBatch);
      }
    }
    worker.finish({"the server was stopped", "the server was stopped"});
    REQUIRE(takeAnswer(server).status == orvane::kServerEnding);
  }
  for (const auto& entry : std::filesystem::directory_iterator(server.folder)) {
    std::filesystem::remove_all(entry);
  }
  return 0;
}
