#include <iostream>
#include <orvane/orvane.hpp>

int main(int argc, char** argv) try {
  const unsigned char order[] = "14 crates of oranges";
  // A ring for this process only, or queues if the server has no rings; 5 seconds to answer.
  orvane::Lease lease(argc > 1 ? argv[1] : "/run/orvaned/orders/socket", 5,
                      orvane::Transport::automatic);
  const auto writer = orvane::makeWriter("orders", lease, 30, 5);
  writer->open();
  writer->writeSegment(order, sizeof order - 1);
  writer->endSegment();
  writer->close();
  std::cout << textOf(lease.receipt(30)) << "\n";
} catch (const std::exception& e) {
  std::cerr << "producer: " << e.what() << "\n";
  return 1;
}
