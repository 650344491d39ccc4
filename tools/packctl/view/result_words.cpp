#include "tools/packctl/view/result_words.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace orbamira::packctl {

std::string Capitalized(std::string words) {
  if (!words.empty() && words.front() >= 'a' && words.front() <= 'z') {
    words.front() = static_cast<char>(words.front() - 'a' + 'A');
  }
  return words;
}

std::string QuotedWord(const std::string& word) {
  const auto is_plain = [](unsigned char c) { return std::isalnum(c) != 0 || std::strchr("-_./,:@%+=", c) != nullptr; };
  if (!word.empty() && std::ranges::all_of(word, is_plain)) {
    return word;
  }
  std::string quoted = "'";
  for (const char c : word) {
    quoted += c == '\'' ? std::string(R"('\'')") : std::string(1, c);
  }
  return quoted + "'";
}

std::string TookWords(std::chrono::milliseconds duration) {
  const auto seconds = std::chrono::round<std::chrono::seconds>(duration).count();
  if (seconds < 1) {
    return "under 1 s";
  }
  constexpr int kMinute = 60;
  const std::string rest = std::to_string(seconds % kMinute) + " s";
  return seconds < kMinute ? rest : std::to_string(seconds / kMinute) + " min " + rest;
}

std::string InstalledSentence(const std::string& version, const std::optional<std::string>& before,
                              std::chrono::milliseconds duration) {
  const std::string was = !before ? "" : *before == version ? " again" : " (was " + *before + ")";
  return "Installed " + version + was + " in " + TookWords(duration) + ".";
}

std::string StaysSentence(const std::optional<std::string>& installed_version) {
  if (!installed_version) {
    return "No codec pack is installed.";
  }
  return installed_version->empty() ? "The installed pack stays." : *installed_version + " stays installed.";
}

}  // namespace orbamira::packctl
