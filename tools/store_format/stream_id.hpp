#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace tool {

// A stream's id is the name of its folder, NAME-LABEL-TIME-PROCESS_NUMBER, or without a label
// NAME-TIME-PROCESS_NUMBER. It is unique in its store. What the server's messages, receipts and
// manifests call the stream is its last part, TIME-PROCESS_NUMBER.
constexpr std::size_t kLongestStreamId = 200;
constexpr std::size_t kLongestLabelInId = 64;

// Returns an id of at most kLongestStreamId bytes: the label and then the name are cut. The label
// also has at most kLongestLabelInId bytes, and each of its characters outside [A-Za-z0-9_.-]
// becomes "_". An empty label is none.
std::string streamId(const std::string& name, const std::string& label, const std::string& stream);

// Returns what stands before "-TIME-PROCESS_NUMBER" in the name of a stream's folder, and that last
// part; nothing for every other name.
struct StreamIdParts {
  std::string nameAndLabel;
  std::string stream;
};
std::optional<StreamIdParts> parseStreamId(const std::string& id);

// Returns the NAME in the id of a stream with this label; "" if the text is no id.
std::string nameInId(const std::string& id, const std::string& label);

// Returns the NAME for streams of leases: that of the socket's file, or that of its folder if the
// file is called `socket`. Its characters are limited as those of a label.
std::string nameOfSocket(const std::string& path);

}  // namespace tool
