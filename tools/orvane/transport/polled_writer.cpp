#include "transport/polled_writer.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "exit.hpp"
#include "queue_list.hpp"
#include "reason.hpp"
#include "shm/queue_rules.hpp"
#include "shm/shm_names.hpp"
#include "shm/totals.hpp"
#include "transport/backoff.hpp"

namespace tool {
namespace {

namespace ipc = boost::interprocess;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kAbortTime(2);

const std::size_t kEmptyBatch = orvane::ShmBatch::MetaData::getSerializedSize();
const std::size_t kHeader = orvane::pvk_shm_message_t::getSerializedSize();

[[noreturn]] void failToAttach(const std::string& queueName, const std::string& part,
                               const ipc::interprocess_exception& e) {
  switch (e.get_error_code()) {
    case ipc::not_found_error:
      throw Failure(kNothingSent, noSuchQueue(queueName));
    case ipc::security_error:
      throw Failure(kNothingSent, "no permission to use " + (kShmFolder + part) +
                                      ": run as its owner, or start orvaned with another --mode");
    default:
      throw Failure(kNothingSent,
                    "cannot use " + (kShmFolder + part) + " as a queue: " + reasonOf(e));
  }
}

ipc::message_queue attach(const std::string& queueName, const std::string& part) {
  try {
    return ipc::message_queue(ipc::open_only, part.c_str());
  } catch (const ipc::interprocess_exception& e) {
    failToAttach(queueName, part, e);
  }
}

// The server may have removed the queues after attach() has attached to them.
std::unique_ptr<orvane::ShmWriter> newWriter(const std::string& queueName) {
  try {
    return std::make_unique<orvane::ShmWriter>("", queueName, orvane::kMinTimeoutSeconds,
                                               orvane::kMinTimeoutSeconds, false);
  } catch (const ipc::interprocess_exception& e) {
    failToAttach(queueName, queueName, e);
  }
}

// Returns 0 if there is no such queue.
ino_t inodeOf(const std::string& queueName) {
  struct stat status = {};
  return stat((kShmFolder + queueName).c_str(), &status) == 0 ? status.st_ino : 0;
}

Fd openTotals(const std::string& queueName) {
  return Fd(open(totalsPathOf(queueName).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

std::size_t dataPerRecord(std::size_t messageSize) {
  if (messageSize <= smallestMessageSize()) {
    throw Failure(kNothingSent, "the queue's messages, " + std::to_string(messageSize) +
                                    " bytes, are too small for a record: start orvaned with a "
                                    "larger --message-size");
  }
  return std::min<std::size_t>(orvane::ShmWriter::getMaxSegmentSize(),
                               messageSize - smallestMessageSize());
}

}  // namespace

PolledWriter::PolledWriter(const std::string& queueName, std::chrono::seconds timeout,
                           Interrupt& interrupt, orvane::Lease* lease)
    : queueName(queueName),
      timeout(timeout),
      interrupt(interrupt),
      lease(lease),
      sendQueue(attach(queueName, queueName)),
      responseQueue(attach(queueName, orvane::getMessageQueueResponseName(queueName))),
      inode(inodeOf(queueName)),
      totals(lease == nullptr ? openTotals(queueName) : Fd()),
      writer(newWriter(queueName)),
      maxData(dataPerRecord(sendQueue.get_max_msg_size())),
      batchSize(kEmptyBatch) {}

void PolledWriter::open() {
  receiveResponses();  // to an earlier stream: the writer would take the first for this stream's
  waitForRoom(timeout);
  ++batches;
  writer->open();
}

void PolledWriter::writeSegment(const unsigned char* data, std::size_t size) {
  makeRoomInBatch(size);
  writer->writeSegment(data, size);
}

void PolledWriter::endSegment() {
  makeRoomInBatch(0);
  writer->endSegment();
}

void PolledWriter::close() {
  makeRoomInBatch(0);
  waitForRoom(timeout);
  ++batches;
  batchSize = kEmptyBatch;
  writer->close();
}

void PolledWriter::abort() noexcept {
  try {
    waitForRoom(std::min(timeout, kAbortTime));
    writer->stop(false);
  } catch (...) {  // the failure that led here is the one to report
    // Never destroyed, and the command ends now.
    static const orvane::ShmWriter* const abandoned = writer.release();
    static_cast<void>(abandoned);
  }
}

void PolledWriter::flush() {
  waitForRoom(timeout);
  ++batches;
  batchSize = kEmptyBatch;
  writer->flush_shm_buffer(orvane::kMinTimeoutSeconds);
}

void PolledWriter::makeRoomInBatch(std::size_t dataSize) {
  if (batchSize + kHeader + dataSize > sendQueue.get_max_msg_size()) {
    flush();
  }
  batchSize += kHeader + dataSize;
}

void PolledWriter::waitForRoom(std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  interrupt.check();
  for (Backoff backoff(interrupt); sendQueue.get_num_msg() == sendQueue.get_max_msg();
       backoff.pause()) {
    if (serverLeft()) {
      if (lease != nullptr) {
        lease->receipt(0);  // throws the reason for the lease's end, if the server sent one
      }
      failToSend("was removed before orvaned had taken everything");
    }
    if (serverDied()) {
      failToSend("lost its server, which was killed before it had taken everything");
    }
    if (Clock::now() >= deadline) {
      failToSend("was full for " + std::to_string(limit.count()) + " s: is orvaned still running?");
    }
  }
}

void PolledWriter::failToSend(const std::string& why) const {
  throw Failure(batches == 0 ? kNothingSent : kUnknown, "the queue " + queueName + " " + why);
}

std::vector<orvane::pvk_shm_response_t> PolledWriter::receiveResponses() {
  std::vector<orvane::pvk_shm_response_t> responses(responseQueue.get_num_msg());
  ipc::message_queue::size_type size = 0;
  unsigned int priority = 0;
  for (orvane::pvk_shm_response_t& response : responses) {
    responseQueue.try_receive(&response, sizeof response, size, priority);
    response.text[sizeof response.text - 1] = '\0';
  }
  return responses;
}

bool PolledWriter::allReceived() {
  return sendQueue.get_num_msg() == 0;
}

bool PolledWriter::serverLeft() const {
  if (lease != nullptr) {
    return !lease->alive();  // it ends after the server's last packet and the queue's removal
  }
  const ino_t now = inodeOf(queueName);
  return now == 0 || now != inode;
}

// If only the worker died, its server makes the queue anew.
bool PolledWriter::serverDied() const {
  std::uint64_t server = 0;
  return pread(totals.get(), &server, sizeof server, offsetof(Totals, server)) == sizeof server &&
         !isWorkerAlive(totals.get()).value_or(true) && kill(static_cast<pid_t>(server), 0) != 0 &&
         errno == ESRCH;
}

}  // namespace tool
