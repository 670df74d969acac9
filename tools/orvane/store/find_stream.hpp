#pragma once

#include <optional>
#include <string>

namespace tool {

// Returns the folder of the stream that a user means by a text: its id, a part of its id that no
// other stream of the store has, or the path of its folder. The last part of an id, as receipts
// have it, is always enough. For a path, the store is not looked at; otherwise it is
// storeNamed(store). Throws Failure if there is no such stream, or, with a list of them, if there
// are several. Of a path only its form is checked.
std::string findStream(const std::optional<std::string>& store, const std::string& text);

// Returns the folder of the newest stream that has the text in its id; every id has "". Throws
// Failure if there is none.
std::string findNewestStream(const std::string& store, const std::string& text);

}  // namespace tool
