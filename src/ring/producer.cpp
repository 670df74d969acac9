#include "ring/producer.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

#include "orvane/status.hpp"
#include "records/batch_layout.hpp"
#include "records/failure.hpp"

namespace orvane::ring {

namespace {

constexpr std::uint64_t kBeforeRecords = kFrameHeader + layout::kMetaDataSize;

template <typename Page>
Page& pageAt(const Mapping& mapping, std::uint64_t bytes) {
  auto& page = *reinterpret_cast<Page*>(mapping.get());
  const Identity identity = page.identity;
  if (identity.magic != kMagic || identity.version != kVersion || identity.line != kLine ||
      identity.bytes != bytes) {
    fail(kLeaseLost,
         "The server's ring has another form: client and server versions differ; "
         "install the same release of both");
  }
  return page;
}

template <typename Page>
Mapping mapPage(const File& file, std::uint64_t size, bool writable) {
  requireSealed(file, size);
  return Mapping(file.get(), 0, sizeof(Page), writable);
}

}  // namespace

Producer::Producer(const File& mine, const File& servers, std::uint64_t bytes,
                   Connection connection)
    : bytes(bytes),
      connection(std::move(connection)),
      madeInFork(forkCount()),
      page(mapPage<ProducerPage>(mine, kPage + bytes, true)),
      data(mine.get(), kPage, bytes, true, true),
      serversPage(mapPage<ServerPage>(servers, sizeof(ServerPage), false)),
      counters(pageAt<ProducerPage>(page, bytes).counters),
      server(pageAt<const ServerPage>(serversPage, bytes)),
      end(counters, server.counters, bytes) {
  beginFrame();
}

std::uint64_t Producer::largestRecord() const {
  return largestFrame(bytes) - kBeforeRecords - layout::kHeaderSize;
}

unsigned char* Producer::place(std::uint64_t len, std::chrono::nanoseconds timeout) {
  const std::uint64_t needed = layout::kHeaderSize + len;
  if (used + needed > std::min(usualFrame, largestFrame(bytes))) {
    publish();
  }
  if (wholeLines(used + needed) > end.room() && !makeRoom(needed, timeout)) {
    return nullptr;
  }
  limit = std::max(used + needed, std::min(usualFrame, end.room() / kLine * kLine));
  return frame + used;
}

void Producer::beginFrame() {
  frame = data.get() + (end.tail() & (bytes - 1));
  used = kBeforeRecords;
  limit = 0;  // place() has not asked for room
  records = 0;
}

void Producer::publish() {
  if (records == 0) {
    return;
  }
  const std::uint64_t header[] = {used - kFrameHeader, ++frames};
  static_assert(sizeof header == kFrameHeader);
  std::memcpy(frame, header, sizeof header);
  ShmBatch::MetaData metaData;
  metaData.numEntries = records;
  layout::writeMetaData(frame + kFrameHeader, metaData);
  end.publish(end.tail() + wholeLines(used));
  beginFrame();
  takeAnswers();
}

// A full ring is emptied by a quarter before the producer goes on: it sleeps once for many frames.
bool Producer::makeRoom(std::uint64_t needed, std::chrono::nanoseconds timeout) {
  requireValid(end.look());
  if (wholeLines(used + needed) <= end.room()) {
    return true;
  }
  publish();
  return awaitHead(headWithRoom(), timeout);
}

std::uint64_t Producer::headWithRoom() const {
  return end.tail() + largestFrame(bytes) - bytes;
}

bool Producer::awaitReleased(std::chrono::nanoseconds timeout) {
  const bool released = awaitHead(end.tail(), timeout);
  takeAnswers();
  return released;
}

bool Producer::awaitHead(std::uint64_t wanted, std::chrono::nanoseconds timeout) {
  requireValid(end.look());
  const std::int64_t begin = LinuxSystem::now();
  const std::int64_t deadline = begin + timeout.count();
  const std::uint64_t before = counters.blocked.load(std::memory_order_relaxed);
  while (!hasReached(end.head(), wanted) && LinuxSystem::now() < deadline) {
    if (connection.hasEnded()) {
      requireValid(end.look());  // it may have answered just before it ended
      if (hasReached(end.head(), wanted)) {
        break;
      }
      fail(kLeaseLost, "The server ended the lease: it died or was stopped");
    }
    requireValid(end.await(wanted));
    takeAnswers();
    counters.blocked.store(before + static_cast<std::uint64_t>(LinuxSystem::now() - begin),
                           std::memory_order_relaxed);
  }
  return hasReached(end.head(), wanted);
}

void Producer::takeAnswers() {
  const std::uint64_t written = server.counters.answersWritten.load(std::memory_order_acquire);
  requireValid(written - answersTaken <= kAnswers);
  for (; answersTaken != written; ++answersTaken) {
    pvk_shm_response_t answer;
    std::memcpy(&answer, &server.answers[answersTaken % kAnswers], sizeof answer);
    if (answer.status != 0 && !hasError) {
      error = answer;
      hasError = true;
    }
  }
  counters.answersTaken.store(answersTaken, std::memory_order_release);
}

void Producer::discardAnswers() {
  takeAnswers();
  hasError = false;
}

const pvk_shm_response_t* Producer::takeError() {
  return std::exchange(hasError, false) ? &error : nullptr;
}

void Producer::requireValid(bool valid) const {
  if (!valid) {
    connection.end();
    fail(kLeaseLost, "The server broke the rules of its ring: take another lease");
  }
}

}  // namespace orvane::ring
