// Puts messages, lawful or not, into a queue: hostile_producer QUEUE FILE. The file holds each
// message's size, 4 bytes, and its bytes. What does not fit in, the queue refuses; that is no
// matter.

#include <cstdint>
#include <fstream>
#include <iostream>
#include <queue/message_queue.hpp>
#include <vector>

int main(int argc, char** argv) try {
  if (argc != 3) {
    std::cerr << "usage: hostile_producer QUEUE FILE\n";
    return 2;
  }
  namespace ipc = boost::interprocess;
  ipc::message_queue queue(ipc::open_only, argv[1]);
  std::ifstream file(argv[2], std::ios::binary);
  std::uint32_t size = 0;
  while (file.read(reinterpret_cast<char*>(&size), sizeof(size))) {
    std::vector<char> message(size);
    file.read(message.data(), size);
    for (int tries = 1000; tries > 0 && !queue.try_send(message.data(), size, 1); --tries) {
    }
  }
  return 0;
} catch (const std::exception& e) {
  std::cerr << "hostile_producer: " << e.what() << "\n";
  return 1;
}
