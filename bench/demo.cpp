// The whole way: a producer, the real orvaned, and its store, up to the receipt that says that all
// is stored. Beside it, with a store that keeps nothing, the same records to a reader that decodes
// them; and with a store on a disk, dd of as many bytes. Prints a line of JSON for each
// measurement.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <utility>

#include "command_line.hpp"
#include "forms.hpp"
#include "served.hpp"

namespace bench {
namespace {

constexpr unsigned kTimeout = 60;
constexpr std::size_t kBlock = 512 << 10;

struct Setup {
  std::string orvaned;
  std::string store = ".";
  std::vector<std::size_t> sizes = {64, 1024, 16384, 131072};
  std::size_t bytes = 256 << 20;
  int rounds = 5;
  double seconds = 0.2;
};

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Bytes per second, from open() to the receipt.
double throughServer(const Served& server, const Load& load, std::size_t bytes) {
  const std::uint64_t records = bytes / load.data().size();
  orvane::Lease lease(server.socket(), kTimeout);
  orvane::ShmWriter writer("", lease.queueName(), kTimeout, kTimeout, false);
  const auto begin = Clock::now();
  writer.open();
  for (std::uint64_t i = 0; i < records; ++i) {
    writer.writeSegment(load.data().data(), load.data().size());
  }
  writer.endSegment();
  writer.close();
  const std::string receipt = textOf(lease.receipt(kTimeout));
  const double taken = secondsSince(begin);
  const std::string stored = "records=" + std::to_string(records) +
                             " bytes=" + std::to_string(records * load.data().size()) +
                             " segments=1 end=closed";
  if (receipt.find(stored) == std::string::npos) {
    throw std::runtime_error("the receipt says: " + receipt);
  }
  return static_cast<double>(records * load.data().size()) / taken;
}

double throughDd(const std::string& folder, std::size_t bytes) {
  const std::size_t blocks = bytes / kBlock;
  const std::string command = "dd if=/dev/zero of='" + folder +
                              "/dd' bs=512K conv=fsync status=none count=" + std::to_string(blocks);
  const auto begin = Clock::now();
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error("failed: " + command);
  }
  return static_cast<double>(blocks * kBlock) / secondsSince(begin);
}

void clear(const std::filesystem::path& folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::filesystem::remove_all(entry);
  }
}

void print(const char* what, std::size_t size, int round, double rate) {
  std::printf(R"({"question":"demo","form":"%s","size":%zu,"round":%d,"bytes_per_second":%.0f})"
              "\n",
              what, size, round, rate);
  std::fflush(stdout);
}

using Measure = std::function<double(const Load&)>;

// Both measures of each size in turn, in each round in another order.
void compare(const Setup& setup, std::pair<const char*, Measure> one,
             std::pair<const char*, Measure> other) {
  for (int round = 0; round < setup.rounds; ++round) {
    for (const std::size_t size : setup.sizes) {
      const Load load(size);
      print(one.first, size, round, one.second(load));
      print(other.first, size, round, other.second(load));
    }
    std::swap(one, other);
  }
}

// The disk comes last: it goes on working when what was asked of it is done.
void runAll(const Setup& setup) {
  const std::filesystem::path folder = std::filesystem::path(setup.store) / uniqueName();
  std::filesystem::create_directory(folder);
  const auto time =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(setup.seconds));
  const Form orvane = allForms().front();
  const Served keepsNothing(setup.orvaned, "/dev/null");
  compare(
      setup,
      {"stream",
       [&](const Load& load) { return *measure(orvane, Geometry(), load, Work::headers, time); }},
      {"null store",
       [&](const Load& load) { return throughServer(keepsNothing, load, setup.bytes * 4); }});
  const Served keepsAll(setup.orvaned, folder);
  compare(setup,
          {"disk",
           [&](const Load& load) {
             const double rate = throughServer(keepsAll, load, setup.bytes);
             clear(folder);
             return rate;
           }},
          {"dd", [&](const Load&) {
             const double rate = throughDd(folder, setup.bytes);
             clear(folder);
             return rate;
           }});
  std::filesystem::remove(folder);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Setup setup;
  bench::CommandLine line("bench_demo", "Measures the way through orvaned and its store.");
  line.addRequired("--orvaned", setup.orvaned, "The server");
  line.add("--store", setup.store, "Folder on the disk to store to");
  line.add("--size", setup.sizes, "Data bytes of a record");
  line.addBytes("--bytes", setup.bytes, "Bytes stored at a time; 4 times as many without a store");
  line.add("--rounds", setup.rounds, "How often everything is measured, in turn");
  line.add("--seconds", setup.seconds, "How long each time, without orvaned");
  return line.run(argc, argv, [&] { bench::runAll(setup); });
}
