// What orvaned burns while nobody sends anything. Prints a line of JSON for each measurement.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <list>
#include <orvane/orvane.hpp>
#include <thread>

#include "queue_link.hpp"
#include "served.hpp"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kTimeout = 30;

// As a share of one processor.
double share(const std::string& orvaned, std::size_t pairs, double seconds) {
  const Served server(orvaned, "/dev/null");
  std::list<orvane::Lease> leases;
  for (std::size_t i = 0; i < pairs; ++i) {
    leases.emplace_back(server.socket(), kTimeout);
  }
  const double before = server.cpuSeconds();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  return (server.cpuSeconds() - before) / seconds;
}

// The same of a reader that only polls an empty queue.
double shareOfPolling(const std::string& pauses, double seconds) {
  Geometry geometry;
  geometry.pauses = pausesNamed(pauses);
  QueueLink link(geometry, geometry.messageSize, Wait::polling);
  std::size_t size = 0;
  auto pause = geometry.pauses.shortest;
  const std::clock_t before = std::clock();
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (Clock::now() < end && !link.tryReceive(size)) {
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, geometry.pauses.longest);
  }
  return static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC / seconds;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) try {
  std::string orvaned;
  std::vector<std::size_t> pairs = {1, 4, 16};
  std::vector<std::string> pauses;
  double seconds = 10;
  CLI::App app("Measures what an idle orvaned costs.", "bench_idle");
  app.add_option("--orvaned", orvaned, "The server")->required();
  app.add_option("--pairs", pairs, "Pairs of queues that it serves")->capture_default_str();
  app.add_option("--pause", pauses,
                 "SHORTEST-LONGEST pause of a reader, in us, to measure as well");
  app.add_option("--seconds", seconds, "How long each time")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  for (const std::size_t count : pairs) {
    std::printf(R"({"question":"idle","pairs":%zu,"seconds":%g,"cpu_percent":%.2f})"
                "\n",
                count, seconds, 100 * bench::share(orvaned, count, seconds));
    std::fflush(stdout);
  }
  for (const std::string& one : pauses) {
    std::printf(R"({"question":"idle","pauses":"%s","seconds":%g,"cpu_percent":%.2f})"
                "\n",
                one.c_str(), seconds, 100 * bench::shareOfPolling(one, seconds));
  }
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "bench_idle: %s\n", e.what());
  return 1;
}
