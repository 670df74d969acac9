#include "command_line/suggestion.hpp"

#include <algorithm>

namespace tool {
namespace {

// Returns how many characters have to be inserted, removed, replaced or swapped with their
// neighbour to make one word the other.
std::size_t distance(const std::string& from, const std::string& to) {
  // changes[i][j] is the distance of the first i characters of one and the first j of the other.
  std::vector changes(from.size() + 1, std::vector<std::size_t>(to.size() + 1));
  for (std::size_t i = 0; i <= from.size(); ++i) {
    for (std::size_t j = 0; j <= to.size(); ++j) {
      if (i == 0 || j == 0) {
        changes[i][j] = i + j;
        continue;
      }
      const std::size_t replaced = changes[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      changes[i][j] = std::min({replaced, changes[i - 1][j] + 1, changes[i][j - 1] + 1});
      const bool isSwapped = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
      if (isSwapped) {
        changes[i][j] = std::min(changes[i][j], changes[i - 2][j - 2] + 1);
      }
    }
  }
  return changes.back().back();
}

}  // namespace

std::string suggestionFor(const std::string& word, const std::vector<std::string>& known) {
  // A longer word may have more wrong characters; one that is all wrong is no misspelling.
  std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
  std::string closest;
  for (const std::string& candidate : known) {
    const bool isBeginning = !word.empty() && candidate.starts_with(word);
    const std::size_t wrong = isBeginning ? 0 : distance(word, candidate);
    if (wrong < least) {
      least = wrong;
      closest = candidate;
    }
  }
  return closest.empty() ? "" : "; did you mean " + closest + "?";
}

}  // namespace tool
