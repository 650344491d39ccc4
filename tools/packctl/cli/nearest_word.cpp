#include "tools/packctl/cli/nearest_word.h"

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

namespace orbamira::packctl {
namespace {

std::size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t substituted = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({substituted, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string NearestWord(std::string_view word, std::span<const std::string> candidates) {
  std::size_t nearest = std::max<std::size_t>(2, word.size() / 3) + 1;
  std::string found;
  for (const std::string& candidate : candidates) {
    if (const std::size_t distance = EditDistance(word, candidate); distance < nearest) {
      nearest = distance;
      found = candidate;
    }
  }
  return found;
}

std::string DidYouMean(std::string_view word, std::span<const std::string> candidates) {
  const std::string nearest = NearestWord(word, candidates);
  return nearest.empty() ? "" : " Did you mean \"" + nearest + "\"?";
}

}  // namespace orbamira::packctl
