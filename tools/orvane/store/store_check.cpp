#include "store/store_check.hpp"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

namespace tool {
namespace {

constexpr unsigned kMostThreads = 8;
constexpr std::size_t kBlock = 1 << 20;
constexpr std::chrono::milliseconds kLongestWait(100);

}  // namespace

StoreCheck::StoreCheck(std::vector<std::string> streamFolders) : folders(std::move(streamFolders)) {
  const unsigned count = std::clamp(std::thread::hardware_concurrency(), 1U, kMostThreads);
  try {
    while (threads.size() < count) {
      threads.emplace_back([this] { run(); });
    }
  } catch (const std::system_error&) {  // one thread does, too
    if (threads.empty()) {
      throw;
    }
  }
}

StoreCheck::~StoreCheck() {
  {
    const std::lock_guard lock(mutex);
    isStopped = true;
  }
  changed.notify_all();
  for (std::thread& thread : threads) {
    thread.join();
  }
}

std::vector<StreamReport> StoreCheck::next() {
  std::vector<StreamReport> ready;
  std::unique_lock lock(mutex);
  const auto hasNext = [this] { return reports.contains(returned) || failure; };
  changed.wait_for(lock, kLongestWait, hasNext);
  if (failure) {
    std::rethrow_exception(failure);
  }
  for (auto report = reports.begin(); report != reports.end() && report->first == returned;
       report = reports.erase(report)) {
    ready.push_back(std::move(report->second));
    ++returned;
  }
  return ready;
}

void StoreCheck::run() {
  try {
    work();
  } catch (const Stopped&) {
    return;
  } catch (...) {
    const std::lock_guard lock(mutex);
    failure = std::current_exception();
    changed.notify_all();
  }
}

void StoreCheck::work() {
  const auto block = std::make_unique_for_overwrite<unsigned char[]>(kBlock);
  std::unique_lock lock(mutex);
  while (!isStopped) {
    if (!waiting.empty()) {
      compareFile(lock, {block.get(), kBlock});
    } else if (nextFolder < folders.size()) {
      beginStream(lock);
    } else if (beginning > 0) {
      changed.wait(lock);
    } else {
      return;
    }
  }
}

void StoreCheck::beginStream(std::unique_lock<std::mutex>& lock) {
  const std::size_t number = nextFolder++;
  ++beginning;
  lock.unlock();
  auto stream = std::make_shared<Stream>(number, folders[number]);
  lock.lock();
  --beginning;
  if (stream->left == 0) {
    conclude(*stream);
  } else {
    waiting.push_back(std::move(stream));
  }
  changed.notify_all();
}

void StoreCheck::compareFile(std::unique_lock<std::mutex>& lock, std::span<unsigned char> block) {
  const std::shared_ptr<Stream> stream = waiting.front();
  const std::size_t file = stream->nextFile++;
  if (stream->nextFile == stream->check.files()) {
    waiting.pop_front();
  }
  lock.unlock();
  const std::string fault =
      stream->check.compare(file, block, [this](std::size_t bytes) { afterRead(bytes); });
  lock.lock();
  stream->check.keep(file, fault);
  if (--stream->left == 0) {
    conclude(*stream);
    changed.notify_all();
  }
}

void StoreCheck::conclude(Stream& stream) {
  reports.emplace(stream.number, stream.check.report());
}

void StoreCheck::afterRead(std::size_t bytes) {
  readBytes += bytes;
  if (isStopped) {
    throw Stopped();
  }
}

}  // namespace tool
