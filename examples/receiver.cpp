// receiver NAME: a server of one stream, which prints what comes.

#include <chrono>
#include <iostream>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <thread>

namespace {

namespace ipc = boost::interprocess;

// A queue that exists while this object does.
struct Queue {
  Queue(const std::string& queueName, std::size_t messages, std::size_t messageSize)
      : name(queueName), queue(ipc::create_only, name.c_str(), messages, messageSize) {}
  ~Queue() { ipc::message_queue::remove(name.c_str()); }
  const std::string name;
  ipc::message_queue queue;
};

// Returns whether the stream has ended. Throws when the message is no batch.
bool print(const unsigned char* message, std::size_t size) {
  bool ended = false;
  for (const orvane::ShmBatch::Entry& entry : orvane::BatchView(message, size)) {
    std::cout << entry << " " << entry.header << "\n";
    ended = ended || entry.header.type == orvane::kRecordClose;
  }
  return ended;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string name = argc > 1 ? argv[1] : "orders";
  static unsigned char message[1048968];
  Queue answers(orvane::getMessageQueueResponseName(name), 10, sizeof(orvane::pvk_shm_response_t));
  Queue batches(name, 8, sizeof message);  // last: a producer that finds it finds both
  for (bool ended = false; !ended;) {
    std::size_t size = 0;
    unsigned priority = 0;
    // Never a blocking receive: a producer that is killed while it waits on the same queue may
    // leave the other side asleep for ever. Who looks again and again is woken by nobody.
    if (!batches.queue.try_receive(message, sizeof message, size, priority)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      continue;
    }
    orvane::pvk_shm_response_t answer;
    try {
      ended = print(message, size);
    } catch (const Ox_ErrnoException& e) {
      answer.assign(e.status(), e.what());
    }
    answers.queue.try_send(&answer, sizeof answer, 0);
  }
} catch (const std::exception& e) {
  std::cerr << "receiver: " << e.what() << "\n";
  return 1;
}
