#include <iostream>
#include <orvane/orvane.hpp>

int main(int argc, char** argv) try {
  const unsigned char order[] = "14 crates of oranges";
  // The stream's name, the queue's, two timeouts in seconds, no benchmark.
  orvane::ShmWriter writer("orders", argc > 1 ? argv[1] : "orders", 30, 5, false);
  writer.open();
  writer.writeSegment(order, sizeof order - 1);
  writer.endSegment();
  writer.close();
} catch (const std::exception& e) {
  std::cerr << "producer: " << e.what() << "\n";
  return 1;
}
