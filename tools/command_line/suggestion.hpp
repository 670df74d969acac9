#pragma once

#include <string>
#include <vector>

namespace tool {

// Returns "; did you mean send?" for the known word that the given one is probably a misspelling or
// the beginning of, or "" if no known word is close to it.
std::string suggestionFor(const std::string& word, const std::vector<std::string>& known);

}  // namespace tool
