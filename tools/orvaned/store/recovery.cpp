#include "store/recovery.hpp"

#include <exception>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>

#include "log.hpp"
#include "store/unfinished_stream_folder.hpp"

namespace orvaned {
namespace {

void recover(UnfinishedStream& unfinished, Sync sync, const std::string& who) {
  using namespace orvane::server;
  const Logger log("recovery");
  std::string queue = doublePercent(unfinished.head.queue);
  const std::string left =
      "what " + std::string(who == "the server" ? "a dead server" : "a dead worker") + " left";
  try {
    UnfinishedStreamFolder stream(*unfinished.folder, sync);
    if (stream.isFinished()) {
      return;
    }
    const std::string receipt = textOf(stream.finish(unfinished.head, who + " died"));
    queue = doublePercent(stream.queue());
    if (stream.damagedFiles() == 0) {
      log.log(LEVEL_INFO, __func__, 0, "queue %s: finished %s: %s", queue.c_str(), left.c_str(),
              receipt.c_str());
    } else {
      log.log(LEVEL_WARNING, __func__, orvane::kStoreFailed,
              "queue %s: finished %s: %s; damaged files: %zu, see its manifest", queue.c_str(),
              left.c_str(), receipt.c_str(), stream.damagedFiles());
    }
  } catch (const std::exception& e) {
    log.log(LEVEL_ERROR, __func__, orvane::kStoreFailed,
            "queue %s: cannot finish %s, the next start tries again: %s", queue.c_str(),
            left.c_str(), doublePercent(e.what()).c_str());
  }
}

}  // namespace

void recoverStreams(UnfinishedStreams& streams, Sync sync, const std::string& who) {
  while (auto stream = streams.next()) {
    recover(*stream, sync, who);
  }
}

}  // namespace orvaned
