// What orvaned burns while nobody sends anything. Prints a line of JSON for each measurement.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <list>
#include <orvane/orvane.hpp>
#include <thread>

#include "command_line.hpp"
#include "queue_link.hpp"
#include "served.hpp"

namespace bench {
namespace {

struct Setup {
  std::string orvaned;
  std::vector<std::size_t> pairs = {1, 4, 16};
  std::vector<std::size_t> rings = {1, 4, 16};
  std::vector<std::string> pauses;
  double seconds = 10;
};

using Clock = std::chrono::steady_clock;

constexpr unsigned kTimeout = 30;

// As a share of one processor.
double share(const std::string& orvaned, orvane::Transport transport, std::size_t count,
             double seconds) {
  Served server(orvaned, "/dev/null");
  std::list<orvane::Lease> leases;
  for (std::size_t i = 0; i < count; ++i) {
    leases.emplace_back(server.socket(), kTimeout, transport);
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

void measureLeases(const Setup& setup, const char* name, orvane::Transport transport,
                   const std::vector<std::size_t>& counts) {
  for (const std::size_t count : counts) {
    std::printf(R"({"question":"idle","%s":%zu,"seconds":%g,"cpu_percent":%.3f})"
                "\n",
                name, count, setup.seconds,
                100 * share(setup.orvaned, transport, count, setup.seconds));
    std::fflush(stdout);
  }
}

void runAll(const Setup& setup) {
  measureLeases(setup, "pairs", orvane::Transport::queue, setup.pairs);
  measureLeases(setup, "rings", orvane::Transport::ring, setup.rings);
  for (const std::string& one : setup.pauses) {
    std::printf(R"({"question":"idle","pauses":"%s","seconds":%g,"cpu_percent":%.2f})"
                "\n",
                one.c_str(), setup.seconds, 100 * shareOfPolling(one, setup.seconds));
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Setup setup;
  bench::CommandLine line("bench_idle", "Measures what an idle orvaned costs.");
  line.addRequired("--orvaned", setup.orvaned, "The server");
  line.add("--pairs", setup.pairs, "Pairs of queues that it serves");
  line.add("--rings", setup.rings, "Rings that it serves");
  line.add("--pause", setup.pauses,
           "SHORTEST-LONGEST pause of a reader, in us, to measure as well");
  line.add("--seconds", setup.seconds, "How long each time");
  return line.run(argc, argv, [&] { bench::runAll(setup); });
}
