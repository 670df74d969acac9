// What becomes of speed, processor time, memory and leases when more and more producers use one
// orvaned at the same time, over rings and over queues. Each producer is a process with a lease of
// its own. Prints lines of JSON for each measurement.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>

#include "attempts.hpp"
#include "command_line.hpp"
#include "crowd.hpp"
#include "forms.hpp"
#include "served.hpp"
#include "two_processes.hpp"

namespace bench {
namespace {

using Seconds = std::chrono::duration<double>;

constexpr unsigned kTimeout = 30;
constexpr std::size_t kMostProducers = 256;
constexpr std::size_t kMostLeases = 32;  // that each producer asks for
constexpr std::size_t kFewestLeases = 4;
constexpr std::size_t kAllLeases = 128;
constexpr std::size_t kWarmUp = 3 * orvane::kDefaultRing;

struct Setup {
  std::string orvaned;
  std::string store = ".";
  std::vector<unsigned> producers = {1, 2, 4, 8, 16, 32, 64};
  std::vector<std::string> transports = {"ring", "small ring", "queue"};
  std::size_t size = 1024;
  int rounds = 5;
  double seconds = 0.3;
};

// What one producer found.
struct Found {
  std::array<double, kMostLeases> leaseSeconds = {};
  Clock::time_point begin;
  Clock::time_point end;
  double cpuSeconds = 0;
  std::uint64_t bytes = 0;
  std::uint64_t memory = 0;  // bytes that it took since it was started
  std::uint64_t shortStreams = 0;
  double shortSeconds = 0;
};

using AllFound = std::array<Found, kMostProducers>;

double since(Clock::time_point begin) {
  return Seconds(Clock::now() - begin).count();
}

std::uint64_t ringOf(const std::string& transport) {
  return transport == "small ring" ? orvane::kSmallestRing : orvane::kDefaultRing;
}

// One producer, with the lease that it keeps.
class Producer {
 public:
  Producer(const std::string& server, const std::string& transport)
      : socket(server),
        transport(transport == "queue" ? orvane::Transport::queue : orvane::Transport::ring),
        ringBytes(ringOf(transport)) {}

  // The seconds that it took to get a lease.
  double takeLease() {
    writer.reset();
    lease.reset();
    const auto begin = Clock::now();
    lease = std::make_unique<orvane::Lease>(socket, kTimeout, transport, ringBytes);
    const double taken = since(begin);
    writer = orvane::makeWriter("", *lease, kTimeout, kTimeout);
    return taken;
  }

  // Sends records as long as more(records) is true; the bytes of data, which the server's receipt
  // confirms.
  template <typename More>
  std::uint64_t sendStream(const Load& load, const More& more) {
    writer->open();
    std::uint64_t records = 0;
    for (; more(records); ++records) {
      writer->writeSegment(load.data().data(), load.data().size());
    }
    writer->close();
    const orvane::Receipt receipt = lease->receipt(kTimeout);
    if (receipt.records != records || receipt.end != orvane::StreamEnd::closed) {
      throw std::runtime_error("the receipt says: " + textOf(receipt));
    }
    return receipt.bytes;
  }

 private:
  const std::string socket;
  const orvane::Transport transport;
  const std::uint64_t ringBytes;
  std::unique_ptr<orvane::Lease> lease;
  std::unique_ptr<orvane::ChannelWriter> writer;
};

void sendForTime(Producer& producer, const Load& load, double seconds, Found& found) {
  const std::uint64_t betweenLooks = 1 + 65536 / load.recordSize();
  const double cpu = cpuSeconds();
  found.begin = Clock::now();
  found.bytes = producer.sendStream(load, [&](std::uint64_t records) {
    return records % betweenLooks != 0 || since(found.begin) < seconds;
  });
  found.end = Clock::now();
  found.cpuSeconds = cpuSeconds() - cpu;
}

// Streams of one record.
void sendShortStreams(Producer& producer, const Load& load, double seconds, Found& found) {
  const auto begin = Clock::now();
  do {
    producer.sendStream(load, [](std::uint64_t records) { return records < 1; });
    ++found.shortStreams;
  } while (since(begin) < seconds);
  found.shortSeconds = since(begin);
}

template <typename Value>
auto sumOf(const AllFound& all, unsigned count, const Value& value) {
  decltype(value(all[0])) sum = 0;
  for (unsigned i = 0; i < count; ++i) {
    sum += value(all[i]);
  }
  return sum;
}

void printShortStreams(const std::string& fields, const char* store, int round, const AllFound& all,
                       unsigned count) {
  const double rate = sumOf(all, count, [](const Found& found) {
    return static_cast<double>(found.shortStreams) / found.shortSeconds;
  });
  std::printf(R"({"question":"short streams",%s,"store":"%s","round":%d,)"
              R"("streams_per_second":%.1f})"
              "\n",
              fields.c_str(), store, round, rate);
  std::fflush(stdout);
}

// As many as a percentile needs, but a large crowd does not take minutes.
std::size_t leasesOfEach(unsigned count) {
  return std::clamp(kAllLeases / count, kFewestLeases, kMostLeases);
}

// The time within which `percent` of all leases were there, in microseconds.
double leaseTime(const AllFound& all, unsigned count, std::size_t percent) {
  std::vector<double> times;
  for (unsigned i = 0; i < count; ++i) {
    times.insert(times.end(), all[i].leaseSeconds.begin(),
                 all[i].leaseSeconds.begin() + leasesOfEach(count));
  }
  std::sort(times.begin(), times.end());
  return 1e6 * times[times.size() * percent / 100];
}

struct ServersPart {
  double cpuSeconds = 0;
  std::optional<std::size_t> memory;  // that came with the leases
};

// Of one lease in all its processes, as a member of a JSON object.
std::string leaseMemory(const AllFound& all, unsigned count, const ServersPart& server) {
  if (!server.memory) {
    return "";
  }
  const std::uint64_t producers =
      sumOf(all, count, [](const Found& found) { return found.memory; });
  return field("lease_bytes", (*server.memory + producers) / count) + ",";
}

void printGrowth(const std::string& fields, int round, const AllFound& all, unsigned count,
                 const std::string& transport, const ServersPart& server) {
  const double bytes =
      sumOf(all, count, [](const Found& found) { return static_cast<double>(found.bytes); });
  const double cpu =
      server.cpuSeconds + sumOf(all, count, [](const Found& found) { return found.cpuSeconds; });
  Clock::time_point begin = all[0].begin;
  Clock::time_point end = all[0].end;
  for (unsigned i = 1; i < count; ++i) {
    begin = std::min(begin, all[i].begin);
    end = std::max(end, all[i].end);
  }
  std::printf(R"({"question":"growth",%s,"round":%d,"bytes_per_second":%.0f,"cpu_per_gb":%.4f,)"
              R"(%s"ring_bytes":%zu,"lease_p50_us":%.1f,"lease_p99_us":%.1f})"
              "\n",
              fields.c_str(), round, bytes / Seconds(end - begin).count(), cpu / (bytes / 1e9),
              leaseMemory(all, count, server).c_str(), static_cast<std::size_t>(ringOf(transport)),
              leaseTime(all, count, 50), leaseTime(all, count, 99));
  std::fflush(stdout);
}

// All producers get their leases, send for some time, and send short streams.
void withoutStore(const Setup& setup, const std::string& transport, unsigned count,
                  const std::string& fields, int round) {
  Served server(setup.orvaned, "/dev/null");
  const auto memory = server.memory();
  const Load load(setup.size);
  const Shared<AllFound> all;
  const Crowd crowd(count, [&](const Crowd::Member& member) {
    Found& found = (*all)[member.index];
    Producer producer(server.socket(), transport);
    member.await();
    const std::size_t memoryBefore = memoryOf(getpid()).value();
    member.await();
    for (std::size_t i = 0; i < leasesOfEach(count); ++i) {
      found.leaseSeconds[i] = producer.takeLease();
    }
    // After this, all memory of the lease has been used.
    producer.sendStream(
        load, [&](std::uint64_t records) { return records * load.recordSize() < kWarmUp; });
    member.await();
    sendForTime(producer, load, setup.seconds, found);
    member.await();
    found.memory = memoryOf(getpid()).value() - memoryBefore;
    member.await();
    sendShortStreams(producer, load, setup.seconds, found);
    member.await();
  });
  crowd.passStep();
  crowd.passStep();
  crowd.awaitAll();
  const double cpu = server.cpuSeconds();
  crowd.letGo();
  crowd.awaitAll();
  const double cpuUsed = server.cpuSeconds() - cpu;
  crowd.letGo();
  crowd.awaitAll();
  const auto memoryThen = server.memory();
  crowd.letGo();
  crowd.awaitAll();
  const auto memoryTaken =
      memory && memoryThen ? std::optional(*memoryThen - *memory) : std::nullopt;
  printGrowth(fields, round, *all, count, transport, {cpuUsed, memoryTaken});
  printShortStreams(fields, "null", round, *all, count);
}

// A folder on the disk, removed at the end.
class Folder {
 public:
  explicit Folder(const std::filesystem::path& where) : path(where / uniqueName()) {
    std::filesystem::create_directory(path);
  }
  ~Folder() { std::filesystem::remove_all(path); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::filesystem::path path;
};

// The folder outlives the server.
void onDisk(const Setup& setup, const std::string& transport, unsigned count,
            const std::string& fields, int round) {
  const Folder folder(setup.store);
  const Served server(setup.orvaned, folder.path);
  const Load load(setup.size);
  const Shared<AllFound> all;
  const Crowd crowd(count, [&](const Crowd::Member& member) {
    Found& found = (*all)[member.index];
    Producer producer(server.socket(), transport);
    found.leaseSeconds[0] = producer.takeLease();
    member.await();
    sendShortStreams(producer, load, setup.seconds, found);
    member.await();
  });
  crowd.passStep();
  crowd.awaitAll();
  printShortStreams(fields, "disk", round, *all, count);
}

void runAll(const Setup& setup) {
  Attempts growth("growth");
  Attempts disk("short streams");
  for (int round = 0; round < setup.rounds; ++round) {
    for (const unsigned count : setup.producers) {
      if (count == 0 || count > kMostProducers) {
        throw std::invalid_argument("there may be 1 to " + std::to_string(kMostProducers) +
                                    " producers");
      }
      for (const std::string& transport : setup.transports) {
        const std::string fields = field("transport", transport) + "," + field("producers", count);
        growth.measure(fields, round,
                       [&] { withoutStore(setup, transport, count, fields, round); });
        disk.measure(fields + "," + field("store", "disk"), round,
                     [&] { onDisk(setup, transport, count, fields, round); });
      }
    }
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Setup setup;
  bench::CommandLine line("bench_growth", "Measures many producers at one orvaned.");
  line.addRequired("--orvaned", setup.orvaned, "The server");
  line.add("--store", setup.store, "Folder on the disk to store to");
  line.add("--producers", setup.producers, "How many there are at once");
  line.addChoices("--transport", setup.transports, {"ring", "small ring", "queue"},
                  "Over what they send; a small ring has 1 MiB");
  line.addBytes("--size", setup.size, "Data bytes of a record");
  line.add("--rounds", setup.rounds, "How often everything is measured, in turn");
  line.add("--seconds", setup.seconds, "How long each time");
  return line.run(argc, argv, [&] { bench::runAll(setup); });
}
