#include <iostream>
#include <orvane/orvane.hpp>

int main(int argc, char** argv) try {
  // If no socket is given, the stream uses the only server that runs on this machine.
  orvane::Stream stream({.socket = argc > 1 ? argv[1] : "", .label = "oranges"});
  stream.write("14 crates of oranges");
  const orvane::Receipt stored = stream.finish();
  std::cout << textOf(stored) << "\n";
} catch (const std::exception& e) {
  std::cerr << "producer: " << e.what() << "\n";
  return 1;
}
