// The whole way: a producer, the real orvaned, and its store, up to the receipt that says that all
// is stored. Over queues and over a ring. Beside it, with a store that keeps nothing, the same
// records to a reader in a process of this program; and with a store on a disk, dd of as many
// bytes. On the disk also what is compressed: text, and noise, which does not shrink. Prints a line
// of JSON for each measurement.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <utility>
#include <vector>

#include "attempts.hpp"
#include "command_line.hpp"
#include "content.hpp"
#include "forms.hpp"
#include "served.hpp"

namespace bench {
namespace {

constexpr unsigned kTimeout = 60;
constexpr std::size_t kBlock = 512 << 10;
constexpr std::size_t kContent = 64 << 20;

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

// Bytes per second, from open() to the receipt. `data` returns the data of each record.
template <typename Data>
double throughServer(const Served& server, orvane::Transport transport, const Data& data,
                     std::size_t size, std::size_t bytes) {
  const std::uint64_t records = bytes / size;
  orvane::Lease lease(server.socket(), kTimeout, transport);
  const auto writer = orvane::makeWriter("", lease, kTimeout, kTimeout);
  const auto begin = Clock::now();
  writer->open();
  for (std::uint64_t i = 0; i < records; ++i) {
    writer->writeSegment(data(i).data(), size);
  }
  writer->endSegment();
  writer->close();
  const std::string receipt = textOf(lease.receipt(kTimeout));
  const double taken = secondsSince(begin);
  const std::string stored = "records=" + std::to_string(records) +
                             " bytes=" + std::to_string(records * size) + " segments=1 end=closed";
  if (receipt.find(stored) == std::string::npos) {
    throw std::runtime_error("the receipt says: " + receipt);
  }
  return static_cast<double>(records * size) / taken;
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

struct Way {
  std::string name;
  std::function<double(const Load&)> measure;  // bytes per second
};

// All ways with each size in turn, in each round in another order.
void compare(const Setup& setup, Attempts& attempts, std::vector<Way> ways) {
  for (int round = 0; round < setup.rounds; ++round) {
    for (const std::size_t size : setup.sizes) {
      const Load load(size);
      for (const Way& way : ways) {
        const std::string fields = field("form", way.name) + "," + field("size", size);
        attempts.measure(fields, round, [&] {
          const double rate = way.measure(load);
          std::printf(R"({"question":"demo",%s,"round":%d,"bytes_per_second":%.0f})"
                      "\n",
                      fields.c_str(), round, rate);
          std::fflush(stdout);
        });
      }
    }
    std::rotate(ways.begin(), ways.begin() + 1, ways.end());
  }
}

// A stream to a reader that does as much as orvaned with the null store: for a queue it decodes,
// and for a ring it also touches every byte.
Way betweenTwo(const std::string& name, const std::string& form, Work work, double seconds) {
  const auto time =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  const std::vector<Form> forms = allForms();
  const auto found =
      std::find_if(forms.begin(), forms.end(), [&](const Form& one) { return one.name == form; });
  return {name, [form = *found, work, time](const Load& load) {
            return measure(form, Geometry(), load, work, time)->bytesPerSecond;
          }};
}

// The disk comes last: it goes on working when what was asked of it is done.
void runAll(const Setup& setup) {
  using orvane::Transport;
  const std::filesystem::path folder = std::filesystem::path(setup.store) / uniqueName();
  std::filesystem::create_directory(folder);
  Attempts attempts("demo");
  const auto through = [](const std::string& name, const Served& server, Transport transport,
                          std::size_t bytes) {
    return Way{name, [&server, transport, bytes](const Load& load) {
                 const auto same = [&load](std::uint64_t) { return load.data(); };
                 return throughServer(server, transport, same, load.data().size(), bytes);
               }};
  };
  const Served keepsNothing(setup.orvaned, "/dev/null");
  compare(setup, attempts,
          {betweenTwo("stream", "orvane", Work::headers, setup.seconds),
           through("null store", keepsNothing, Transport::queue, setup.bytes * 4),
           betweenTwo("ring, stream", "orvane, ring", Work::bytes, setup.seconds),
           through("ring, null store", keepsNothing, Transport::ring, setup.bytes * 4)});
  const auto clearing = [&](const Way& way) {
    return Way{way.name, [&folder, measure = way.measure](const Load& load) {
                 clear(folder);  // also what a way that failed has left
                 const double rate = measure(load);
                 clear(folder);
                 return rate;
               }};
  };
  const Served keepsAll(setup.orvaned, folder);
  std::vector<Way> ways = {
      clearing(through("disk", keepsAll, Transport::queue, setup.bytes)),
      clearing(through("ring, disk", keepsAll, Transport::ring, setup.bytes)),
      clearing({"dd", [&](const Load&) { return throughDd(folder, setup.bytes); }})};
#ifdef BENCH_ZSTD
  const auto changing = [&](const std::string& name, const Served& server, const Content& content) {
    return clearing({name, [&server, &content, &setup](const Load& load) {
                       const std::size_t size = load.data().size();
                       return throughServer(
                           server, Transport::ring,
                           [&](std::uint64_t number) { return content.record(number, size); }, size,
                           setup.bytes);
                     }});
  };
  const Content text = Content::text(kContent);
  const Content noise = Content::noise(kContent);
  const Served compresses(setup.orvaned, folder, {"--compress", "zstd:1"});
  ways.push_back(changing("text, disk", keepsAll, text));
  ways.push_back(changing("text, zstd:1", compresses, text));
  ways.push_back(changing("noise, disk", keepsAll, noise));
  ways.push_back(changing("noise, zstd:1", compresses, noise));
#endif
  compare(setup, attempts, ways);
  std::filesystem::remove_all(folder);
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
