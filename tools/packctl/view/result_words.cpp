#include "tools/packctl/view/result_words.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "platform/constants.h"

namespace orbamira::packctl {
namespace {

// A pack of somebody else's is called by its name.
std::string CodecsOf(const std::string& package) {
  if (package == kHevcPack) {
    return "HEVC";
  }
  return package == kHevcAacPack ? "HEVC and AAC" : package;
}

}  // namespace

std::string Capitalized(std::string words) {
  if (!words.empty() && words.front() >= 'a' && words.front() <= 'z') {
    words.front() = static_cast<char>(words.front() - 'a' + 'A');
  }
  return words;
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) {
    joined += (joined.empty() ? "" : ", ") + text;
  }
  return joined;
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

std::string InstalledSentence(const PackIdentity& now, const std::optional<PackIdentity>& before,
                              std::chrono::milliseconds duration) {
  const bool is_other_pack =
      before && !before->package.empty() && !now.package.empty() && before->package != now.package;
  const bool is_other_version = before && before->version != now.version;
  std::string text = "Installed " + now.version;
  if (is_other_pack) {
    const std::string version = is_other_version ? before->version + " with " : "";
    text += " with " + CodecsOf(now.package) + " (was " + version + CodecsOf(before->package) + ")";
  } else if (before) {
    text += is_other_version ? " (was " + before->version + ")" : " again";
  }
  return text + " in " + TookWords(duration) + ".";
}

std::string StaysSentence(const std::optional<std::string>& installed_version) {
  if (!installed_version) {
    return "No codec pack is installed.";
  }
  return installed_version->empty() ? "The installed pack stays." : *installed_version + " stays installed.";
}

}  // namespace orbamira::packctl
