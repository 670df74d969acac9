#include "forms.hpp"

#include <algorithm>
#include <array>
#include <cstring>

#include "leased_ring_link.hpp"
#include "stream_links.hpp"
#include "two_processes.hpp"

namespace bench {
namespace {

constexpr unsigned kTimeout = 30;
constexpr std::size_t kUnlimited = static_cast<std::size_t>(-1);

std::uint64_t sumBelow(std::uint64_t count) {
  return count * (count - 1) / 2;
}

// A producer looks at its clock once in about 64 KiB.
std::uint64_t recordsBetweenLooks(const Load& load) {
  return 1 + 65536 / load.recordSize();
}

// Calls send(number) until the time is over; the number of calls.
template <typename Send>
std::uint64_t sendFor(Clock::duration time, std::uint64_t betweenLooks, const Send& send) {
  const auto end = Clock::now() + time;
  std::uint64_t sent = 0;
  do {
    for (const std::uint64_t next = sent + betweenLooks; sent < next; ++sent) {
      send(sent);
    }
  } while (Clock::now() < end);
  return sent;
}

// The records' numbers are the writer's: its open record carries 0, the next one 2.
Sent throughWriter(Link& link, const Load& load, std::size_t, Clock::duration time) {
  const std::string& queue = dynamic_cast<AnsweringQueueLink&>(link).name();
  orvane::ShmWriter writer("", queue, kTimeout, kTimeout, false);
  writer.open();
  const std::uint64_t sent = sendFor(time, recordsBetweenLooks(load), [&](std::uint64_t) {
    writer.writeSegment(load.data().data(), load.data().size());
  });
  writer.close();
  return {sent, sumBelow(sent + 2) - 1};
}

Sent flushedEach(Link& link, const Load& load, std::size_t, Clock::duration time) {
  const std::string& queue = dynamic_cast<AnsweringQueueLink&>(link).name();
  orvane::ShmWriter writer("", queue, kTimeout, kTimeout, false);
  const std::uint64_t sent = sendFor(time, recordsBetweenLooks(load), [&](std::uint64_t number) {
    const orvane::pvk_shm_message_t header = load.header(number);
    writer.write_data(&header, load.data().data(), kTimeout, true);
  });
  const orvane::pvk_shm_message_t close = closeRecord();
  writer.write_data(&close, nullptr, kTimeout, true);
  return {sent, sumBelow(sent)};
}

Sent throughRing(Link& link, const Load& load, std::size_t, Clock::duration time) {
  orvane::RingWriter writer("", dynamic_cast<LeasedRingLink&>(link).lease().ring(), kTimeout,
                            kTimeout, false);
  writer.open();
  const std::uint64_t sent = sendFor(time, recordsBetweenLooks(load), [&](std::uint64_t) {
    writer.writeSegment(load.data().data(), load.data().size());
  });
  writer.close();
  return {sent, sumBelow(sent + 2) - 1};
}

// The receiver sends no receipt: it ends the connection when it has everything.
Sent throughStream(Link& link, const Load& load, std::size_t, Clock::duration time) {
  orvane::Stream& stream = dynamic_cast<StreamSource&>(link).stream();
  const std::uint64_t sent = sendFor(time, recordsBetweenLooks(load), [&](std::uint64_t) {
    stream.write(load.data().data(), load.data().size());
  });
  try {
    stream.finish();
  } catch (const orvane::StreamError& e) {
    if (e.status() != orvane::kLeaseLost) {
      throw;
    }
  }
  return {sent, sumBelow(sent + 2) - 1};
}

Sent inPlace(Link& link, const Load& load, std::size_t, Clock::duration time) {
  orvane::RingWriter writer("", dynamic_cast<LeasedRingLink&>(link).lease().ring(), kTimeout,
                            kTimeout, false);
  writer.open();
  const std::uint64_t sent = sendFor(time, recordsBetweenLooks(load), [&](std::uint64_t) {
    std::memcpy(writer.reserve(load.data().size()), load.data().data(), load.data().size());
    writer.commit(load.data().size());
  });
  writer.close();
  return {sent, sumBelow(sent + 2) - 1};
}

void sendCloseBatch(Link& link) {
  Packer packer(link.room());
  packer.add(closeRecord(), {});
  link.send(packer.finish());
}

Sent inBatches(Link& link, const Load& load, std::size_t capacity, Clock::duration time) {
  const std::size_t perBatch = capacity / load.recordSize();
  std::uint64_t number = 0;
  sendFor(time, 1, [&](std::uint64_t) {
    Packer packer(link.room());
    for (std::size_t i = 0; i < perBatch; ++i) {
      packer.add(load.header(number++), load.data());
    }
    link.send(packer.finish());
  });
  sendCloseBatch(link);
  return {number, sumBelow(number)};
}

// The same batch again and again: no producer can be faster on this link.
Sent filledBefore(Link& link, const Load& load, std::size_t capacity, Clock::duration time) {
  const std::size_t perBatch = capacity / load.recordSize();
  Packer packer(link.room());
  for (std::size_t i = 0; i < perBatch; ++i) {
    packer.add(load.header(i), load.data());
  }
  const std::size_t size = packer.finish();
  const std::uint64_t batches = sendFor(time, 1, [&](std::uint64_t) { link.send(size); });
  sendCloseBatch(link);
  return {batches * perBatch, batches * sumBelow(perBatch)};
}

Sent oneByOne(Link& link, const Load& load, std::size_t, Clock::duration time) {
  std::array<unsigned char, orvane::pvk_shm_message_t::kSerializedSize> head = {};
  const std::uint64_t sent = sendFor(time, recordsBetweenLooks(load), [&](std::uint64_t number) {
    load.header(number).serializeToBuffer(head.data());
    link.send(head, load.data());
  });
  closeRecord().serializeToBuffer(head.data());
  link.send(head, {});
  return {sent, sumBelow(sent)};
}

void takeMessage(Form::Messages what, Link& link, Tally& tally, Work work) {
  switch (what) {
    case Form::Messages::batches:
      return tally.takeBatch(link.receive(), work);
    case Form::Messages::records:
      return tally.takeRecord(link.receive(), work);
    case Form::Messages::inRing:
      return dynamic_cast<LeasedRingLink&>(link).receiveInPlace(
          [&](const orvane::ShmBatch::Entry& entry) {
            tally.take(entry.header, entry.data, work);
          });
  }
}

struct Results {
  Meeting start{2};
  Meeting end{2};
  Sent sent;
  Clock::time_point begin;
  Clock::time_point finish;
  double sendersCpu = 0;
  double receiversCpu = 0;
  Tally tally;
};

}  // namespace

std::vector<Form> allForms() {
  using Messages = Form::Messages;
  const auto answering = [](Wait wait) {
    return [wait](const Geometry& geometry, std::size_t) {
      return std::make_unique<AnsweringQueueLink>(geometry, wait);
    };
  };
  const auto bare = [](Wait wait) {
    return [wait](const Geometry& geometry, std::size_t capacity) {
      return std::make_unique<QueueLink>(geometry, capacity, wait);
    };
  };
  const auto ring = [](const Geometry& geometry, std::size_t) {
    return std::make_unique<LeasedRingLink>(geometry.frame, geometry.ring);
  };
  std::vector<Form> all = {
      {"orvane, ring", Messages::batches, ring, kUnlimited, throughRing, ""},
      {"orvane, ring in place", Messages::inRing, ring, kUnlimited, inPlace, ""},
      {"orvane, stream over ring", Messages::batches,
       [](const Geometry& geometry, std::size_t) {
         return std::make_unique<StreamRingLink>(geometry.ring);
       },
       kUnlimited, throughStream, ""},
      {"orvane, stream over queue", Messages::batches,
       [](const Geometry& geometry, std::size_t) {
         return std::make_unique<StreamQueueLink>(geometry);
       },
       kUnlimited, throughStream, ""},
      {"orvane", Messages::batches, answering(Wait::polling), kUnlimited, throughWriter, ""},
      {"orvane, waiting reader", Messages::batches, answering(Wait::inQueue), kUnlimited,
       throughWriter, ""},
      {"orvane, flushed each", Messages::batches, answering(Wait::inQueue), kUnlimited, flushedEach,
       ""},
      {"queue, filled before", Messages::batches, bare(Wait::polling), kUnlimited, filledBefore,
       ""},
      {"queue, one by one", Messages::records, bare(Wait::inQueue), kUnlimited, oneByOne, ""},
  };
  for (const Peer& peer : peers()) {
    const auto make = [peer](const Geometry&, std::size_t capacity) { return peer.make(capacity); };
    all.push_back(
        {peer.name + ", batches", Messages::batches, make, peer.largest, inBatches, peer.missing});
    all.push_back({peer.name + ", one by one", Messages::records, make, peer.largest, oneByOne,
                   peer.missing});
  }
  return all;
}

std::optional<Speed> measure(const Form& form, const Geometry& geometry, const Load& load,
                             Work work, Clock::duration time) {
  const bool batches = form.messages != Form::Messages::records;
  const std::size_t limit = std::min(geometry.messageSize, form.largest);
  const std::size_t capacity = batches ? load.batchSize(limit) : load.recordSize();
  if (capacity == 0 || capacity > limit) {
    return std::nullopt;
  }
  const std::unique_ptr<Link> link = form.make(geometry, capacity);
  const Shared<Results> results;
  runTogether(
      form.name,
      [&] {
        link->beSender();
        results->start.wait();
        const double cpu = cpuSeconds();
        results->begin = Clock::now();
        results->sent = form.produce(*link, load, capacity, time);
        results->sendersCpu = cpuSeconds() - cpu;
        results->end.wait();  // some mechanisms send what is left in the background
        link->leave();
      },
      [&] {
        link->beReceiver();
        Tally tally;
        results->start.wait();
        const double cpu = cpuSeconds();
        while (!tally.ended) {
          takeMessage(form.messages, *link, tally, work);
        }
        results->finish = Clock::now();
        results->receiversCpu = cpuSeconds() - cpu;
        results->tally = tally;
        link->endReceiving();
        results->end.wait();
        link->leave();
      });
  results->tally.require(load, results->sent, work);
  const std::chrono::duration<double> taken = results->finish - results->begin;
  const auto bytes = static_cast<double>(results->tally.dataBytes);
  return Speed{bytes / taken.count(),
               (results->sendersCpu + results->receiversCpu) / (bytes / 1e9)};
}

}  // namespace bench
