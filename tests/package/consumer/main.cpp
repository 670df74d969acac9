// Calls into each of the three libraries, without a server: what they answer is printed.
#include <iostream>
#include <orvane/orvane.hpp>

namespace {

template <typename Call>
void printError(const char* what, Call call) {
  try {
    call();
    std::cout << what << ": no error\n";
  } catch (const Ox_ErrnoException& e) {
    std::cout << what << ": " << e.status() << "\n";
  } catch (const std::exception& e) {
    std::cout << what << ": " << e.what() << "\n";
  }
}

}  // namespace

int main() {
  const unsigned char notABatch[] = "not a batch of records";
  printError("BatchView", [&] { orvane::BatchView(notABatch, sizeof notABatch); });
  printError("ShmWriter", [] { orvane::ShmWriter("stream", "no-such-queue", 1, 1, false); });
  printError("Lease", [] { orvane::Lease("/nonexistent/socket", 1); });
  ox::setTracing(true);
  std::cout << "TraceOn: " << TraceOn() << "\n";
}
