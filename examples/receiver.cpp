// receiver NAME: a server of one stream, which prints what comes and answers with a receipt.

#include <chrono>
#include <iostream>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <thread>

namespace {

namespace ipc = boost::interprocess;

// A queue that exists while this object does. Only this user may open it.
struct Queue {
  Queue(const std::string& queueName, std::size_t messages, std::size_t messageSize)
      : name(queueName),
        queue(ipc::create_only, name.c_str(), messages, messageSize, ipc::permissions(0600)) {}
  ~Queue() { ipc::message_queue::remove(name.c_str()); }
  const std::string name;
  ipc::message_queue queue;
};

// Counts and prints; returns whether the stream has ended. Throws when the message is no batch.
bool print(const unsigned char* message, std::size_t size, orvane::Receipt& receipt) {
  bool ended = false;
  for (const orvane::ShmBatch::Entry& entry : orvane::BatchView(message, size)) {
    std::cout << entry << " " << entry.header << "\n";
    receipt.records += entry.header.type == orvane::kRecordSegmentData ? 1 : 0;
    receipt.bytes += entry.header.len;
    receipt.segments += entry.header.type == orvane::kRecordEndOfSegment ? 1 : 0;
    ended = ended || entry.header.type == orvane::kRecordClose;
  }
  return ended;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string name = argc > 1 ? argv[1] : "orders";
  static unsigned char message[1048968];
  // Room for one answer to each message that waits, the one at hand, and a notice.
  Queue answers(orvane::getMessageQueueResponseName(name), 10, sizeof(orvane::pvk_shm_response_t));
  Queue batches(name, 8, sizeof message);  // last: a producer that finds it finds both
  orvane::Receipt receipt{name};
  bool ended = false;
  // A producer may ask once more for the answer with the receipt, so the end is not at once.
  for (int idle = 0; !ended || idle < 200; ++idle) {
    std::size_t size = 0;
    unsigned priority = 0;
    // Never a blocking receive: a producer that is killed while it waits on the same queue may
    // leave the other side asleep for ever. One that looks again and again needs nobody to wake it.
    if (!batches.queue.try_receive(message, sizeof message, size, priority)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    idle = 0;
    orvane::pvk_shm_response_t answer;
    try {
      ended = print(message, size, receipt) || ended;
      answer.assign(0, ended ? textOf(receipt).c_str() : "");
    } catch (const Ox_ErrnoException& e) {
      answer.assign(orvane::kBadBatch, e.what());
    }
    answers.queue.try_send(&answer, sizeof answer, answer.status == 0 ? 0 : 1);
  }
} catch (const std::exception& e) {
  std::cerr << "receiver: " << e.what() << "\n";
  return 1;
}
