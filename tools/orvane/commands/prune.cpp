#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "json.hpp"
#include "shm/utc.hpp"
#include "store/retention.hpp"
#include "store/store_folder.hpp"
#include "store/stream_removal.hpp"
#include "store/time_text.hpp"
#include "store_format/size_text.hpp"
#include "units.hpp"

namespace tool {
namespace {

struct PruneOptions {
  std::optional<std::string> store;
  std::string olderThan;  // the texts of the limits; empty: none
  std::string keepBytes;
  std::string keepFree;
  std::string end;
  bool forwarded = false;
  bool dryRun = false;
  bool json = false;
};

std::string checkDuration(const std::string& text) {
  return durationIn(text) ? "" : kNoDuration;
}

std::string checkSize(const std::string& text) {
  return bytesIn(text) ? "" : kNoSize;
}

std::string checkFinalEnd(const std::string& text) {
  for (const auto end : {orvane::StreamEnd::closed, orvane::StreamEnd::stopped,
                         orvane::StreamEnd::cutOff, orvane::StreamEnd::broken}) {
    if (text == textOf(end)) {
      return "";
    }
  }
  return "must be closed, stopped, cut-off or broken";
}

Retention retentionOf(const PruneOptions& options) {
  Retention retention = {durationIn(options.olderThan), bytesIn(options.keepBytes),
                         bytesIn(options.keepFree), options.end, options.forwarded};
  if (!retention.olderThan && !retention.keepBytes && !retention.keepFree) {
    throw Failure(kUsage, "--older-than, --keep-bytes or --keep-free is required");
  }
  return retention;
}

// Prints what is removed and, in the end, what is wrong.
class PruneReport {
 public:
  explicit PruneReport(const PruneOptions& options) : dryRun(options.dryRun), json(options.json) {}

  void add(const FinishedStream& stream) {
    ++streams;
    bytes += stream.bytes;
    if (json) {
      printLine({{"stream", stream.id},
                 {"end", textOf(stream.receipt.end)},
                 {"ended", utcText(stream.ended)},
                 {"bytes", stream.receipt.bytes},
                 {"removed", !dryRun}});
    } else {
      std::cout << done() << stream.id << " (" << textOf(stream.receipt.end) << " "
                << utcText(stream.ended) << ", " << bytesText(static_cast<double>(stream.bytes))
                << ")\n";
    }
  }

  void addHidden(const std::string& folder) {
    if (!json) {
      std::cout << done() << folder << ", the rest of a removed stream\n";
    }
  }

  void end(const StoreContent& left, const Retention& retention) const {
    if (json) {
      return;
    }
    if (streams == 0) {
      std::cout << "nothing to remove\n";
    } else {
      std::cout << done() << counted(streams, "stream") << ", "
                << bytesText(static_cast<double>(bytes)) << "\n";
    }
    if (retention.keepBytes && left.bytes > *retention.keepBytes) {
      std::cout << "not enough may be removed: " << bytesText(static_cast<double>(left.bytes))
                << " stay\n";
    }
    if (retention.keepFree && left.free < *retention.keepFree) {
      std::cout << "not enough may be removed: only " << bytesText(static_cast<double>(left.free))
                << " are free then\n";
    }
  }

 private:
  const char* done() const { return dryRun ? "would remove " : "removed "; }

  const bool dryRun;
  const bool json;
  std::uint64_t streams = 0;
  std::uint64_t bytes = 0;
};

void join(std::string& reasons, const std::string& reason) {
  reasons += (reasons.empty() || reason.empty() ? "" : "; ") + reason;
}

// What must not be passed over in silence: streams that stay for ever because nobody knows their
// age.
std::string reasonOfUnreadable(const std::vector<std::string>& ids) {
  return ids.empty() ? ""
                     : counted(ids.size(), "stream") +
                           (ids.size() == 1 ? " stays because its manifest"
                                            : " stay because their manifests") +
                           " cannot be read, see orvane verify: " + ids.front() +
                           (ids.size() == 1 ? "" : ", ...");
}

// Throws Failure in the end if a stream could not be removed or examined.
void prune(const PruneOptions& options) {
  const Retention retention = retentionOf(options);
  const std::string store = storeNamed(options.store);
  StoreContent content = storeContent(store);
  StreamRemoval removal(store, content.hidden);
  PruneReport report(options);
  std::string failures;
  for (const std::string& folder : content.hidden) {
    report.addHidden(folder);
  }
  for (const FinishedStream& stream : takeExpired(content, store, retention, utcNow())) {
    try {
      if (options.dryRun || removal.hide(stream.id)) {
        report.add(stream);
      }
    } catch (const std::runtime_error& e) {
      join(failures, e.what());
    }
  }
  if (!options.dryRun) {
    join(failures, removal.finish());
  }
  report.end(content, retention);
  requireOutput();
  join(failures, reasonOfUnreadable(content.unreadable));
  if (!failures.empty()) {
    throw Failure(kFailed, failures);
  }
}

void addLimits(CLI::App& command, PruneOptions& options) {
  const std::string group = "Limits, at least one of";
  command
      .add_option("--older-than", options.olderThan,
                  "Remove what ended longer ago than this, such as 12h or 30d")
      ->check(checkDuration)
      ->type_name("DURATION")
      ->group(group);
  command
      .add_option("--keep-bytes", options.keepBytes,
                  "Remove the oldest streams until all files have at most this size")
      ->check(checkSize)
      ->type_name("SIZE")
      ->group(group);
  command
      .add_option("--keep-free", options.keepFree,
                  "Remove the oldest streams until so much of the file system is free")
      ->check(checkSize)
      ->type_name("SIZE")
      ->group(group);
}

}  // namespace

Command addPrune(CLI::App& app) {
  CLI::App* command = app.add_subcommand("prune", "Remove the oldest streams of a store");
  const auto options = std::make_shared<PruneOptions>();
  command->set_version_flag("--version", kVersion);
  addLimits(*command, *options);
  command
      ->add_option("--end", options->end,
                   "Remove only streams with this end: closed, stopped, cut-off or\n"
                   "broken")
      ->check(checkFinalEnd)
      ->type_name("END");
  command->add_flag("--forwarded", options->forwarded,
                    "Remove only streams that orvane-forward has forwarded to a cluster,\n"
                    "at least two minutes ago");
  command->add_flag("-n,--dry-run", options->dryRun, "Only print what would be removed");
  command->add_flag("-j,--json", options->json, kJson);
  command->add_option("STORE", options->store, kStoreHelp)->type_name("");
  command->footer(
      std::string("A stream that has not ended is never removed. Its age counts from its end.\n"
                  "If prune is killed, each stream is whole or gone.\n") +
      kSizes + "\n" + kExitCodes);
  return {command, [options] { prune(*options); }};
}

}  // namespace tool
