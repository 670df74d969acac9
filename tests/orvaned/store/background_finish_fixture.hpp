#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "orvaned/store/file_calls.hpp"
#include "orvaned/store/running_broker.hpp"
#include "store/stream_folder.hpp"
#include "support/manifest.hpp"
#include "support/temp_folder.hpp"
#include "support/wire.hpp"

namespace orvane::test {

// A sync in another thread arrives here, and waits until it may go on.
class Gate {
 public:
  ~Gate() { open(); }

  void pass() {
    arrived.set_value();
    std::shared_future<void>(opened).wait();
  }
  void awaitArrival() { arrived.get_future().wait(); }
  void open() {
    if (!std::exchange(isOpen, true)) {
      opening.set_value();
    }
  }

 private:
  bool isOpen = false;
  std::promise<void> arrived;
  std::promise<void> opening;
  std::shared_future<void> opened = opening.get_future().share();
};

// A stream whose broker finishes its segments.
class StreamFolderInBackground : public testing::Test {
 protected:
  using StreamFolder = orvaned::StreamFolder;
  using Sync = orvaned::Sync;
  using Names = std::vector<std::string>;

  static constexpr char kFirst[] = "segment-000000.part";

  // From now on the sync of the first segment waits for the gate.
  void closeGate() {
    fileCalls().duringSync = [this](const std::string& path) {
      if (path.ends_with(kFirst)) {
        gate.pass();
      }
      return 0;
    };
  }
  static void failToSync(const std::string& name) {
    fileCalls().duringSync = [name](const std::string& path) {
      return path.ends_with(name) ? EIO : 0;
    };
  }

  StreamFolder makeStream(Sync sync = Sync::segment, int compressionLevel = 0) {
    auto stream = orvaned::BrokeredAccess(broker.client, store.path()).createStream();
    path = stream.folder->path();
    id = stream.head.stream;
    begun = tool::utcText(stream.head.begun.value());
    compressor =
        compressionLevel > 0 ? std::make_unique<tool::Compressor>(compressionLevel) : nullptr;
    return {std::move(stream.folder), stream.head, sync, compressor.get()};
  }
  static void storeData(StreamFolder& stream, std::uint64_t segment, const std::string& text) {
    const Bytes data = bytesOf(text);
    pvk_shm_message_t header;
    header.type = 1;
    header.segmentNo = segment;
    header.len = static_cast<std::uint32_t>(data.size());
    stream.storeSegmentData({header, data.data()});
  }
  static void endSegment(StreamFolder& stream, std::uint64_t segment) {
    pvk_shm_message_t header;
    header.type = 2;
    header.segmentNo = segment;
    stream.endSegment(header);
  }

  // Every reply has come that the broker sends without a further request.
  void awaitBroker() { broker.client.checkStore(); }

  Names files() const { return namesIn(path); }
  std::string file(const std::string& name) const { return readFile(path + "/" + name); }

  static bool isWaiting(const std::future<void>& call) {
    return call.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
  }

  static inline const std::string kHello =
      "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3610a686 "
      "file=segment-000000";
  static inline const std::string kWorld =
      "segment number=1 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3a771143 "
      "file=segment-000001";
  std::string headBegun(const std::string& time) const {
    return "format=2\nqueue=orders\nstream=" + id + "\nbegun=" + time + "\n";
  }
  std::string head() const { return headBegun(begun); }
  std::string plainHead() const { return headBegun("TIME"); }
  std::string manifest() const { return plainManifest(file("manifest")); }
  std::string receipt(const std::string& rest) const { return "receipt stream=" + id + rest; }

  TempFolder store;
  std::unique_ptr<tool::Compressor> compressor;
  std::string path;
  std::string id;
  std::string begun;
  RunningBroker broker{{store.path(), {"orders"}, Sync::segment}};
  Gate gate;
};

}  // namespace orvane::test
