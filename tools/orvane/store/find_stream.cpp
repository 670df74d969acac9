#include "store/find_stream.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "exit.hpp"
#include "store/store_folder.hpp"
#include "store/stored_stream.hpp"
#include "store_format/stream_id.hpp"

namespace tool {
namespace {

constexpr std::size_t kMostListed = 10;

[[noreturn]] void failToFind(const std::string& store, const std::string& text) {
  const std::string what =
      text.empty() ? "no stream is in the store " + store
                   : "no stream in the store " + store + " has '" + text + "' in its id";
  throw Failure(kFailed, what + ": orvane streams " + store + " lists all streams");
}

// TIME-PROCESS_NUMBER of an id; "" for another folder's name.
std::string lastPartOf(const std::string& id) {
  const auto parts = parseStreamId(id);
  return parts ? parts->stream : "";
}

// Lists the newest ones, because these are looked for most often.
[[noreturn]] void failAmbiguous(const std::string& store, const std::string& text,
                                std::vector<std::string> ids) {
  std::sort(ids.begin(), ids.end(), [](const std::string& a, const std::string& b) {
    return std::pair(lastPartOf(a), a) > std::pair(lastPartOf(b), b);
  });
  std::string list;
  for (std::size_t i = 0; i < std::min(ids.size(), kMostListed); ++i) {
    list += (i == 0 ? "" : ", ") + ids[i];
  }
  if (ids.size() > kMostListed) {
    list += " and " + std::to_string(ids.size() - kMostListed) + " more";
  }
  throw Failure(kFailed, std::to_string(ids.size()) + " streams in the store " + store + " have '" +
                             text + "' in their ids, name one of them: " + list);
}

}  // namespace

std::string findStream(const std::optional<std::string>& store, const std::string& text) {
  if (text.find('/') != std::string::npos || isStreamFolder(text)) {
    return text;
  }
  const std::string where = storeNamed(store);
  if (!text.empty() && isStreamFolder(folderOf(where, text))) {
    return folderOf(where, text);
  }
  std::vector<std::string> found;
  for (std::string& id : foldersIn(where)) {
    if (id.find(text) != std::string::npos &&
        (parseStreamId(id) || isStreamFolder(folderOf(where, id)))) {
      found.push_back(std::move(id));
    }
  }
  // "..._1" is also a part of "..._10".
  const auto exact = std::find_if(found.begin(), found.end(),
                                  [&](const std::string& id) { return lastPartOf(id) == text; });
  if (found.size() > 1 && exact == found.end()) {
    failAmbiguous(where, text, std::move(found));
  }
  if (found.empty()) {
    failToFind(where, text);
  }
  return folderOf(where, exact == found.end() ? found.front() : *exact);
}

std::string findNewestStream(const std::string& store, const std::string& text) {
  const std::vector<StoredStream> streams = streamsIn(store);
  const auto newest = std::find_if(
      streams.rbegin(), streams.rend(),
      [&](const StoredStream& stream) { return stream.id.find(text) != std::string::npos; });
  if (newest == streams.rend()) {
    failToFind(store, text);
  }
  return newest->folder;
}

}  // namespace tool
