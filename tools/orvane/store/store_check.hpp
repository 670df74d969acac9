#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "store/stream_check.hpp"

namespace tool {

// Checks stored streams in several threads: as many as there are processors, but at most eight.
// They share the files of each stream, so a stream of many segments is checked as fast as many
// streams.
class StoreCheck {
 public:
  // Begins. Create it while the signals that are to reach the calling thread are blocked.
  explicit StoreCheck(std::vector<std::string> streamFolders);

  // Does not wait for the files that are left.
  ~StoreCheck();

  StoreCheck(const StoreCheck&) = delete;
  StoreCheck& operator=(const StoreCheck&) = delete;

  // Returns further reports, in the order of the folders. Waits for one, but at most 0.1 s. Throws
  // the exception that ended a thread.
  std::vector<StreamReport> next();

  // Has next() returned all reports?
  bool isDone() const { return returned == folders.size(); }

  // Returns how many bytes were read since the last call.
  std::uint64_t takeBytes() { return readBytes.exchange(0); }

 private:
  struct Stream {
    Stream(std::size_t number, const std::string& folder)
        : number(number), check(folder), left(check.files()) {}

    const std::size_t number;  // of its folder
    StreamCheck check;
    std::size_t nextFile = 0;
    std::size_t left;  // files that have not been compared
  };
  struct Stopped {};

  void run();
  void work();
  void beginStream(std::unique_lock<std::mutex>& lock);
  void compareFile(std::unique_lock<std::mutex>& lock, std::span<unsigned char> block);
  void conclude(Stream& stream);
  void afterRead(std::size_t bytes);

  const std::vector<std::string> folders;
  std::atomic<std::uint64_t> readBytes = 0;
  std::atomic<bool> isStopped = false;

  std::mutex mutex;  // protects the rest, except what only the calling thread uses
  std::condition_variable changed;
  std::size_t nextFolder = 0;
  std::size_t beginning = 0;                    // streams whose files are not known yet
  std::deque<std::shared_ptr<Stream>> waiting;  // those with files that no thread compares yet
  std::map<std::size_t, StreamReport> reports;  // that next() has not returned
  std::exception_ptr failure;

  std::size_t returned = 0;  // used by the calling thread only
  std::vector<std::thread> threads;
};

}  // namespace tool
