// receiver NAME: a server for one stream. It prints the records and answers with a receipt.

#include <chrono>
#include <iostream>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <thread>

namespace {

namespace ipc = boost::interprocess;

// A queue that exists as long as this object. Only this user may open it.
struct Queue {
  Queue(const std::string& queueName, std::size_t messages, std::size_t messageSize)
      : name(queueName),
        queue(ipc::create_only, name.c_str(), messages, messageSize, ipc::permissions(0600)) {}
  ~Queue() { ipc::message_queue::remove(name.c_str()); }
  const std::string name;
  ipc::message_queue queue;
};

// Prints and counts the records of a message, and returns true if the stream has ended. Throws if
// the message is not a batch.
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
  // Room for responses to the 8 messages and to the one that is being printed, and for a notice.
  Queue responses(orvane::getMessageQueueResponseName(name), 10,
                  sizeof(orvane::pvk_shm_response_t));
  // Created last: a producer that finds the send queue can rely on the response queue.
  Queue batches(name, 8, sizeof message);
  orvane::Receipt receipt{name};
  bool ended = false;
  // After the stream's end it stays for 200 ms, as a producer may ask for the receipt again.
  for (int idle = 0; !ended || idle < 200; ++idle) {
    std::size_t size = 0;
    unsigned priority = 0;
    // A blocking receive might never return after a producer was killed while it waited on the same
    // queue. A server that polls does not depend on a producer to wake it.
    if (!batches.queue.try_receive(message, sizeof message, size, priority)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    idle = 0;
    orvane::pvk_shm_response_t response;
    try {
      ended = print(message, size, receipt) || ended;
      response.assign(0, ended ? textOf(receipt).c_str() : "");
    } catch (const Ox_ErrnoException& e) {
      response.assign(orvane::kBadBatch, e.what());
    }
    responses.queue.try_send(&response, sizeof response, response.status == 0 ? 0 : 1);
  }
} catch (const std::exception& e) {
  std::cerr << "receiver: " << e.what() << "\n";
  return 1;
}
