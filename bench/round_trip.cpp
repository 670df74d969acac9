// How long one record and its answer take, there and back: over each mechanism, with a reader that
// waits in it, and through orvaned, which polls its queues and sleeps in its rings. Prints a line
// of JSON for each measurement.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "attempts.hpp"
#include "command_line.hpp"
#include "leased_ring_link.hpp"
#include "load.hpp"
#include "queue_link.hpp"
#include "served.hpp"
#include "two_processes.hpp"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::size_t kDataSize = 64;
constexpr std::size_t kAnswerSize = sizeof(orvane::pvk_shm_response_t);
constexpr unsigned kTimeout = 30;
constexpr std::size_t kMostTrips = 1 << 20;

struct Setup {
  std::string orvaned;
  std::vector<std::string> forms;
  std::vector<unsigned> thinks = {0};
  std::vector<std::string> pauses = {"50-5000"};
  int rounds = 5;
  double seconds = 0.2;
};

// What the client found.
struct Trips {
  std::size_t count = 0;
  std::array<float, kMostTrips> microseconds = {};
};

// Sends a record in its own batch, and waits for the answer to it.
class Client {
 public:
  Client() = default;
  virtual ~Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  virtual void send(const orvane::pvk_shm_message_t& header, Bytes data) = 0;
  virtual void awaitAnswer() = 0;
};

class LinkClient : public Client {
 public:
  LinkClient(Link& there, Link& back) : there(there), back(back) {}

  void send(const orvane::pvk_shm_message_t& header, Bytes data) override {
    Packer packer(there.room());
    packer.add(header, data);
    there.send(packer.finish());
  }
  void awaitAnswer() override { back.receive(); }

 private:
  Link& there;
  Link& back;
};

// What a RingWriter does when it flushes each record.
class RingClient : public Client {
 public:
  explicit RingClient(const orvane::Lease& lease) : ring(*lease.ring()) {}

  void send(const orvane::pvk_shm_message_t& header, Bytes data) override {
    unsigned char* const place = ring.place(data.size(), kTimeout);
    if (place == nullptr) {
      throw std::runtime_error("no room for a record");
    }
    unsigned char* const end = header.serializeToBuffer(place);
    std::copy(data.begin(), data.end(), end);
    ring.commit(data.size());
    ring.publish();
  }
  void awaitAnswer() override {
    if (!ring.awaitReleased(kTimeout) || ring.takeError() != nullptr) {
      throw std::runtime_error("a record was not answered, or with an error");
    }
  }

 private:
  orvane::ring::Producer& ring;
};

void makeTrips(const Setup& setup, unsigned think, Client& client, Trips& trips) {
  const Load load(kDataSize);
  const auto end = Clock::now() + std::chrono::duration<double>(setup.seconds);
  while (Clock::now() < end && trips.count < kMostTrips) {
    if (think > 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(think));
    }
    const auto begin = Clock::now();
    client.send(load.header(trips.count + 1), load.data());  // the open record was number 0
    client.awaitAnswer();
    trips.microseconds[trips.count++] =
        static_cast<float>(Microseconds(Clock::now() - begin).count());
  }
  client.send(closeRecord(trips.count + 1), {});
}

void answerAll(Link& there, Link& back) {
  Tally tally;
  for (;;) {
    tally.takeBatch(there.receive(), Work::bytes);
    if (tally.ended) {
      return;
    }
    const orvane::pvk_shm_response_t answer;
    std::memcpy(back.room(), &answer, sizeof answer);
    back.send(sizeof answer);
  }
}

using Run = std::function<void(const Setup&, unsigned think, Trips&)>;

using MakeLinks = std::function<std::pair<std::unique_ptr<Link>, std::unique_ptr<Link>>()>;

Run betweenTwo(const std::string& name, const MakeLinks& make) {
  return [name, make](const Setup& setup, unsigned think, Trips& trips) {
    const auto links = make();
    Link& there = *links.first;
    Link& back = *links.second;
    const auto meeting = std::make_unique<Shared<Meeting>>(2U);
    const auto end = std::make_unique<Shared<Meeting>>(2U);
    runTogether(
        name,
        [&] {
          back.beReceiver();
          there.beSender();
          (*meeting)->wait();
          LinkClient client(there, back);
          makeTrips(setup, think, client, trips);
          (*end)->wait();
          there.leave();
          back.leave();
        },
        [&] {
          there.beReceiver();
          back.beSender();
          (*meeting)->wait();
          answerAll(there, back);
          (*end)->wait();
          there.leave();
          back.leave();
        });
  };
}

// The queues that orvaned serves, used from one process.
class ServedQueue : public Link {
 public:
  explicit ServedQueue(const std::string& name)
      : queue(boost::interprocess::open_only, name.c_str()), buffer(queue.get_max_msg_size()) {}

  unsigned char* room() override { return buffer.data(); }
  using Link::send;
  void send(std::size_t size) override { queue.send(buffer.data(), size, 1); }
  Bytes receive() override {
    boost::interprocess::message_queue::size_type size = 0;
    unsigned priority = 0;
    queue.receive(buffer.data(), buffer.size(), size, priority);
    return {buffer.data(), size};
  }

 private:
  boost::interprocess::message_queue queue;
  std::vector<unsigned char> buffer;
};

void sendTo(const Setup& setup, unsigned think, Client& client, Trips& trips) {
  client.send(orvane::pvk_shm_message_t(), {});  // an open record
  client.awaitAnswer();
  makeTrips(setup, think, client, trips);
}

void throughServer(const Setup& setup, unsigned think, Trips& trips) {
  const Served server(setup.orvaned, "/dev/null");
  const orvane::Lease lease(server.socket(), kTimeout);
  ServedQueue there(lease.queueName());
  ServedQueue back(orvane::getMessageQueueResponseName(lease.queueName()));
  LinkClient client(there, back);
  sendTo(setup, think, client, trips);
}

void throughServersRing(const Setup& setup, unsigned think, Trips& trips) {
  const Served server(setup.orvaned, "/dev/null");
  const orvane::Lease lease(server.socket(), kTimeout, orvane::Transport::ring);
  RingClient client(lease);
  sendTo(setup, think, client, trips);
}

void answerFrames(LeasedRingLink& ring) {
  Tally tally;
  while (!tally.ended) {
    tally.takeBatch(ring.receive(), Work::bytes);
  }
  ring.endReceiving();
}

void throughRing(const Setup& setup, unsigned think, Trips& trips) {
  LeasedRingLink ring;
  const Shared<Meeting> end(2U);
  runTogether(
      "orvane, ring",
      [&] {
        ring.beSender();
        RingClient client(ring.lease());
        makeTrips(setup, think, client, trips);
        end->wait();
      },
      [&] {
        ring.beReceiver();
        answerFrames(ring);
        end->wait();
      });
}

Run inProcess(const std::string& name, const Run& run) {
  return [name, run](const Setup& setup, unsigned think, Trips& trips) {
    runAlone(name, [&] { run(setup, think, trips); });
  };
}

struct Form {
  std::string name;
  Run run;
};

std::vector<Form> allForms(const Setup& setup) {
  const auto queues = [](Wait wait, Pauses pauses) -> MakeLinks {
    return [wait, pauses] {
      const Geometry geometry = {.pauses = pauses};
      const Geometry answers = {geometry.messages + 2, kAnswerSize};
      return std::pair(std::make_unique<QueueLink>(geometry, geometry.messageSize, wait),
                       std::make_unique<QueueLink>(answers, kAnswerSize, Wait::inQueue));
    };
  };
  std::vector<Form> all = {
      {"orvane, ring", throughRing},
      {"orvane's queues", betweenTwo("queues", queues(Wait::inQueue, Pauses()))}};
  for (const std::string& pauses : setup.pauses) {
    all.push_back(
        {"polling " + pauses, betweenTwo("queues", queues(Wait::polling, pausesNamed(pauses)))});
  }
  if (!setup.orvaned.empty()) {
    all.push_back({"orvaned", inProcess("orvaned", throughServer)});
    all.push_back({"orvaned, ring", inProcess("orvaned, ring", throughServersRing)});
  }
  const std::size_t batch = Load(kDataSize).batchSize(256);
  for (const Peer& peer : peers()) {
    if (peer.missing.empty()) {
      all.push_back({peer.name, betweenTwo(peer.name, [peer, batch] {
                       return std::pair(peer.make(batch), peer.make(kAnswerSize));
                     })});
    } else {
      std::fprintf(stderr, "left out: %s (%s)\n", peer.name.c_str(), peer.missing.c_str());
    }
  }
  return all;
}

float percentile(Trips& trips, std::size_t percent) {
  const std::size_t index = trips.count * percent / 100;
  std::nth_element(trips.microseconds.begin(), trips.microseconds.begin() + index,
                   trips.microseconds.begin() + trips.count);
  return trips.microseconds[index];
}

void print(const std::string& fields, int round, Trips& trips) {
  std::printf(R"({"question":"round trip",%s,"round":%d,"trips":%zu,"p50_us":%.2f,"p99_us":%.2f})"
              "\n",
              fields.c_str(), round, trips.count, percentile(trips, 50), percentile(trips, 99));
  std::fflush(stdout);
}

void runAll(const Setup& setup) {
  std::vector<Form> forms = allForms(setup);
  if (!setup.forms.empty()) {
    std::erase_if(forms, [&](const Form& form) {
      return std::find(setup.forms.begin(), setup.forms.end(), form.name) == setup.forms.end();
    });
  }
  Attempts attempts("round trip");
  for (int round = 0; round < setup.rounds; ++round) {
    std::shuffle(forms.begin(), forms.end(), std::mt19937(static_cast<unsigned>(round)));
    for (const unsigned think : setup.thinks) {
      for (const Form& form : forms) {
        const std::string fields = field("form", form.name) + "," + field("think_us", think);
        attempts.measure(fields, round, [&] {
          const Shared<Trips> trips;
          form.run(setup, think, *trips);
          print(fields, round, *trips);
        });
      }
    }
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Setup setup;
  bench::CommandLine line("bench_round_trip", "Measures how long a record and its response take.");
  line.add("--orvaned", setup.orvaned, "The server to measure as well");
  line.add("--form", setup.forms, "Which forms; all without it");
  line.add("--think", setup.thinks, "Microseconds between two trips");
  line.add("--pause", setup.pauses, "SHORTEST-LONGEST pause of a polling reader, in us");
  line.add("--rounds", setup.rounds, "How often everything is measured, in turn");
  line.add("--seconds", setup.seconds, "How long each time");
  return line.run(argc, argv, [&] { bench::runAll(setup); });
}
