// Puts messages, valid or not, into a queue: hostile_producer QUEUE FILE [SECONDS]. The file holds
// each message's size, 4 bytes, and its bytes. What does not fit in, the queue refuses; that is no
// matter. With SECONDS, each message is given so long.

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <queue/message_queue.hpp>
#include <string>
#include <vector>

namespace {

boost::posix_time::ptime in(int seconds) {
  using namespace boost::posix_time;
  return second_clock::universal_time() + boost::posix_time::seconds(seconds);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3 && argc != 4) {
    std::cerr << "usage: hostile_producer QUEUE FILE [SECONDS]\n";
    return 2;
  }
  namespace ipc = boost::interprocess;
  ipc::message_queue queue(ipc::open_only, argv[1]);
  std::ifstream file(argv[2], std::ios::binary);
  std::uint32_t size = 0;
  while (file.read(reinterpret_cast<char*>(&size), sizeof(size))) {
    std::vector<char> message(size);
    file.read(message.data(), size);
    if (argc == 4 && !queue.timed_send(message.data(), size, 1, in(std::stoi(argv[3])))) {
      return 0;
    }
    for (int tries = argc == 4 ? 0 : 1000; tries > 0 && !queue.try_send(message.data(), size, 1);
         --tries) {
    }
  }
  return 0;
} catch (const std::exception& e) {
  std::cerr << "hostile_producer: " << e.what() << "\n";
  return 1;
}
