#pragma once

#include <future>
#include <memory>
#include <optional>
#include <string>

#include "log_limiter.hpp"
#include "store/broker_messages.hpp"
#include "store/output_file.hpp"
#include "store/store_access.hpp"
#include "store/unfinished_streams.hpp"

namespace orvaned {

// The broker of one confined process. It has the server's rights and uses them for that process: it
// creates the folders of its streams, and opens, renames and syncs files of the one open stream. It
// checks the names of these files itself, and refuses every other request. It never touches a
// producer's memory.
class Broker {
 public:
  struct Task {
    std::string store;
    StreamOrigin origin;  // of the confined process's streams; no queue: it begins none
    Sync sync = Sync::segment;
    // The streams that the confined process finishes; null: only the one that another process left
    // open.
    UnfinishedStreams* unfinished = nullptr;
  };

  Broker(const Task& task, tool::Fd socket);

  // Answers requests until the other end of the socket is closed.
  void run();

 private:
  // A file that may be truncated, but not below its size when it was last opened.
  struct Outside {
    std::unique_ptr<StreamDirectory> folder;
    std::uint64_t size = 0;
  };

  void answer(const BrokerRequest& request);
  void perform(const BrokerRequest& request, BrokerReply& reply);
  void performOnFile(const BrokerRequest& request, BrokerReply& reply);
  void startFinish(const BrokerRequest& request);
  void awaitFinish() const;
  void createStream(BrokerReply& reply);
  void listNames(std::uint64_t from, BrokerReply& reply);
  void findUnfinished(BrokerReply& reply);
  void describeOpen(BrokerReply& reply) const;
  StreamDirectory& folderOf(const BrokerRequest& request);
  void checkOutside(const BrokerRequest& request) const;
  void log(const BrokerRequest& request);
  void writeDue();
  void awaitRequest();

  const Task task;
  const tool::Fd socket;
  LocalAccess access;
  std::optional<UnfinishedStream> open;
  bool isConcluded = false;  // it has its manifest, or a process is about to write it
  Outside outside;
  LogLimiter limiter;
  std::future<void> finishing;  // a segment of the open stream; its end is waited for first
};

}  // namespace orvaned
