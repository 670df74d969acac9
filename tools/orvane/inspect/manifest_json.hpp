#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "json.hpp"
#include "store_format/manifest_reader.hpp"
#include "store_format/stream_head.hpp"

namespace tool {

// A stored stream as one JSON object. "stream" and "queue" are its id and the NAME in it, null for
// a folder whose name is no id. "manifest" has the lines KEY=VALUE as members, so a key of a later
// format becomes one too; it has the same keys for every stream, and null is what the manifest does
// not tell. The segments and the other files become the array "files", the lines about damage the
// array "damaged", and what is not understood the array "lines".
class ManifestJson {
 public:
  explicit ManifestJson(const std::string& folder);

  // Adds a line; `file` is the file that it lists, if it lists one, and `fault` how that differs
  // from the line, or "".
  void add(const std::string& line, const std::optional<ListedFile>& file,
           const std::string& fault);

  // Adds what follows the last line.
  void addIncomplete(const std::string& line);

  // Adds whether the manifest itself is whole: `fault` is "" then.
  void addState(const std::string& fault);

  // Prints the object. To be called once, at the end.
  void print();

 private:
  void addHead(const std::string& line);
  void addOther(const std::string& line);

  const std::string id;
  StreamHeadParser head;
  Json json;
  Json facts;
};

}  // namespace tool
