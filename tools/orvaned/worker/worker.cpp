#include "worker/worker.hpp"

#include <poll.h>

#include <algorithm>
#include <orvane/server_status.hpp>
#include <queue/message_queue.hpp>
#include <utility>

#include "log.hpp"

namespace orvaned {

using boost::interprocess::interprocess_exception;
using orvane::pvk_shm_response_t;
using orvane::server::LEVEL_ERROR;
using orvane::server::LEVEL_INFO;
using orvane::server::LEVEL_WARNING;

namespace {

// How long the worker waits at its end for the producer to read its receipts.
constexpr std::chrono::seconds kTimeToRead{5};
constexpr int kLookAgainMs = 100;

// Boost's own text may be the name of a class.
const char* faultOf(const interprocess_exception& e) {
  const bool hangs = e.get_error_code() == boost::interprocess::timeout_when_locking_error;
  return hangs ? "a process hangs inside the queue, or was stopped there"
               : "a process died inside the queue";
}

}  // namespace

std::chrono::microseconds Pause::next() {
  return std::exchange(length, std::min(length * 2, kLongest));
}

Worker::Worker(std::string queueName, BatchSource& source, Store& store, LeaseConnection* lease,
               Capture capture)
    : queueName(std::move(queueName)),
      loggedName(doublePercent(this->queueName)),
      source(source),
      totals(source.totals()),
      store(store),
      lease(lease),
      capture(std::move(capture)) {}

const Ending& Worker::run(const EndWithin& endWithin) {
  try {
    const Ending* ending = nullptr;
    for (auto wait = pause.next(); (ending = endWithin(wait)) == nullptr;) {
      wait = step();
    }
    finish(*ending);
    return *ending;
  } catch (const interprocess_exception& e) {
    giveUp(faultOf(e), orvane::kServerEnding);
  } catch (const SourceBroken& e) {
    giveUp(e.what(), orvane::kBadBatch);
  }
}

std::chrono::microseconds Worker::step() {
  const bool may = mayTake();
  if (may && runOnce()) {
    pause.reset();
    return std::chrono::microseconds(0);
  }
  return may && source.wait() ? std::chrono::microseconds(0) : pause.next();
}

bool Worker::runOnce() {
  const auto message = source.receive();
  if (!message) {
    source.postPending();
    return false;
  }
  capture.add(*message);
  batchError.reset();
  takeBatch(*message);
  const pvk_shm_response_t response = answer();
  countBatch(response.status);
  source.answer(response);
  log.logTrace(__func__, "queue %s: answered %d \"%s\"", loggedName.c_str(), response.status,
               doublePercent(response.text).c_str());
  return true;
}

void Worker::finish(const Ending& ending) {
  std::size_t count = source.waiting();
  while (count-- > 0 && awaitReader(Unread::few) && runOnce()) {
  }
  abandonStream(orvane::StreamEnd::cutOff, ending.reason, orvane::kServerEnding);
  if (badBatches > 0) {
    log.log(LEVEL_WARNING, __func__, orvane::kBadBatch,
            "queue %s: %lu bad batches were refused in all", loggedName.c_str(), badBatches);
  }
  postNotice(ending.notice);
  awaitReader(Unread::none);
}

// Unread receipts must not use up the memory.
bool Worker::mayTake() {
  if (lease == nullptr) {
    return true;
  }
  publishUnread();
  const bool awaited = lease->isFull();
  if (awaited && !receiptsAwaited) {
    log.log(LEVEL_WARNING, __func__, 0,
            "queue %s: no batch is taken until the producer reads some of its %zu receipts",
            loggedName.c_str(), lease->waiting());
  }
  receiptsAwaited = awaited;
  return !awaited;
}

// Waits only once for a producer that does not read.
bool Worker::awaitReader(Unread wanted) {
  if (lease == nullptr) {
    return true;
  }
  const auto isReached = [this, wanted] {
    return wanted == Unread::none ? lease->drained() : !lease->isFull();
  };
  const auto deadline = std::chrono::steady_clock::now() + kTimeToRead;
  while (!isReached() && !readerGivenUp) {
    pollfd room = {lease->fd(), POLLOUT, {}};
    poll(&room, 1, kLookAgainMs);
    lease->sendKept();
    readerGivenUp = std::chrono::steady_clock::now() >= deadline;
  }
  publishUnread();
  return isReached();
}

void Worker::publishUnread() {
  totals.unreadReceipts.store(lease->waiting(), std::memory_order_relaxed);
}

void Worker::countBatch(ox_status_t status) {
  tool::add(totals.batches, 1);
  if (status != 0) {
    tool::add(totals.errorAnswers, 1);
  }
  totals.lastBatch.store(tool::monotonicNow(), std::memory_order_relaxed);
}

void Worker::takeBatch(std::span<const unsigned char> message) {
  try {
    const orvane::BatchView batch(message.data(), message.size());
    log.logTrace(__func__, "queue %s: a batch of %zu records, %zu bytes", loggedName.c_str(),
                 batch.size(), message.size());
    for (const Entry& entry : batch) {
      take(entry);
    }
  } catch (const Ox_ErrnoException& e) {
    ++badBatches;
    tool::add(totals.badBatches, 1);
    fail(__func__, Ox_ErrnoException(orvane::kBadBatch, e.message(), ""));
  }
  flush();
}

void Worker::take(const Entry& entry) {
  try {
    switch (entry.header.type) {
      case orvane::kRecordOpen:
        return open(entry.header);
      case orvane::kRecordClose:
        return close(entry.header, orvane::StreamEnd::closed);
      case orvane::kRecordStop:
        return close(entry.header, orvane::StreamEnd::stopped);
      default:
        return storeRecord(entry);
    }
  } catch (const Ox_ErrnoException& e) {
    fail(__func__, explained(e));
  }
}

// A lease has one producer, but any number may have found a queue by its name.
Ox_ErrnoException Worker::explained(const Ox_ErrnoException& error) const {
  if (lease != nullptr || error.status() != orvane::kOutOfOrder) {
    return error;
  }
  return Ox_ErrnoException(error.status(),
                           error.message() + ": two producers on one queue look like this", "");
}

void Worker::open(const Header& header) {
  checkNoData(header);
  // Otherwise this stream's producer would get the errors of the previous one.
  source.discardResponses();
  broken.reset();
  if (stream && stream->state.isFresh()) {
    stream->state = StreamState(header);
    return;
  }
  abandonStream(orvane::StreamEnd::cutOff, "another stream was opened");
  lastReceipt.clear();
  try {
    stream = Stream{StreamState(header), store.createStream()};
  } catch (const Ox_ErrnoException& e) {
    broken = e;
    send(orvane::StreamFailed{e.status(), e.message()});
    throw;
  }
  outsideLogged = false;
  tool::add(totals.streams, 1);
  totals.answered.store(0, std::memory_order_relaxed);
  tool::setStream(totals, stream->folder->stream());
  log.log(LEVEL_INFO, __func__, 0, "queue %s: stream %s begins", loggedName.c_str(),
          stream->folder->stream().c_str());
}

void Worker::close(const Header& header, orvane::StreamEnd how) {
  if (broken) {
    note(*broken);
    broken.reset();
    return;
  }
  checkNoData(header);
  if (stream) {
    stream->state.check(header);
    stream->folder->end(how, "", stream->state.skipped());
    send(concludeStream());
  }
}

void Worker::storeRecord(const Entry& entry) {
  if (broken) {
    note(*broken);
    return;
  }
  if (!stream) {
    return storeOutside(entry);
  }
  stream->state.check(entry.header);
  switch (entry.header.type) {
    case orvane::kRecordSegmentData:
      stream->folder->storeSegmentData(entry);
      stream->segmentHasData = stream->segmentHasData || entry.header.len > 0;
      stream->segmentBytes += entry.header.len;
      return countRecord(entry);
    case orvane::kRecordEndOfSegment:
      stream->folder->endSegment(entry.header);
      return countSegment();
    default:
      stream->folder->storeOther(entry);
      return countRecord(entry);
  }
}

// Logs only the first record, since a producer that forgot to open its stream may send many.
void Worker::storeOutside(const Entry& entry) {
  if (!std::exchange(outsideLogged, true)) {
    log.log(
        LEVEL_WARNING, __func__, 0,
        "queue %s: a record came while no stream was open; it is stored with the records outside "
        "a stream",
        loggedName.c_str());
  }
  store.storeOutside(entry);
  countRecord(entry);
}

void Worker::countRecord(const Entry& entry) {
  tool::add(totals.records, 1);
  tool::add(totals.bytes, entry.header.len);
}

// Receipts do not count segments without data either.
void Worker::countSegment() {
  tool::add(totals.segments, std::exchange(stream->segmentHasData, false) ? 1 : 0);
}

// At the end of each batch, so that its response reports a full disk.
void Worker::flush() {
  try {
    if (stream) {
      stream->folder->flush();
      totals.answered.store(stream->segmentBytes, std::memory_order_release);
    }
  } catch (const Ox_ErrnoException& e) {
    fail(__func__, e);
  }
  try {
    store.flush();
  } catch (const Ox_ErrnoException& e) {
    report(__func__, e);
  }
}

pvk_shm_response_t Worker::answer() const {
  pvk_shm_response_t response;
  if (const auto& error = batchError ? batchError : broken) {
    response.assign(error->status(), error->what());
  } else {
    response.assign(0, lastReceipt.c_str());
  }
  return response;
}

void Worker::note(const Ox_ErrnoException& error) {
  if (!batchError) {
    batchError = error;
  }
}

void Worker::logError(const char* function, const Ox_ErrnoException& error) const {
  log.log(LEVEL_ERROR, function, error.status(), "queue %s: %s", loggedName.c_str(),
          doublePercent(error.what()).c_str());
}

void Worker::report(const char* function, const Ox_ErrnoException& error) {
  logError(function, error);
  note(error);
}

void Worker::fail(const char* function, const Ox_ErrnoException& error) {
  report(function, error);
  if (stream) {
    abandonStream(orvane::StreamEnd::broken, error.message(), error.status());
    broken = error;
  }
}

// Ends an open stream without its producer's request, so a failure is only logged.
void Worker::abandonStream(orvane::StreamEnd how, const std::string& reason, ox_status_t status) {
  if (!stream) {
    return;
  }
  try {
    stream->folder->end(how, reason, stream->state.skipped());
  } catch (const Ox_ErrnoException& e) {
    logError(__func__, e);
  }
  const orvane::Receipt receipt = concludeStream();
  if (status == 0) {
    send(receipt);
  } else {
    send(orvane::StreamFailed{status, reason});
  }
}

orvane::Receipt Worker::concludeStream() {
  countSegment();
  tool::setStream(totals, "");
  orvane::Receipt receipt = stream->folder->receipt();
  lastReceipt = textOf(receipt);
  log.log(LEVEL_INFO, __func__, 0, "queue %s: %s", loggedName.c_str(), lastReceipt.c_str());
  stream.reset();
  return receipt;
}

void Worker::send(const orvane::LeaseReply& reply) {
  if (lease != nullptr) {
    lease->send(reply);
  }
}

void Worker::postNotice(const std::string& reason) {
  pvk_shm_response_t response;
  response.assign(orvane::kServerEnding, reason.c_str());
  source.answer(response);
}

void Worker::giveUp(const std::string& reason, ox_status_t status) {
  abandonStream(orvane::StreamEnd::broken, reason, status);
  try {
    postNotice(reason);
  } catch (const interprocess_exception&) {
    // The response queue cannot be used either.
  }
  throw PairFailed("queue " + queueName + ": " + reason);
}

}  // namespace orvaned
