#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/record/history.h"

/// The sentences with which commands that change something end well.
namespace orbamira::packctl {

/// The words as they begin a sentence.
std::string Capitalized(std::string words);

/// The texts with a comma between each two: "hevc, aac".
std::string Joined(const std::vector<std::string>& texts);

/// The word as a person types it into a shell: 'my stick' with the quotation marks that it needs.
std::string QuotedWord(const std::string& word);

/// How long something took: "7 s", "2 min 5 s"; "under 1 s" for less.
std::string TookWords(std::chrono::milliseconds duration);

/// "Installed 1.1.0 (was 1.0.0) in 7 s." `before` is the pack that was installed before; empty without one. Where it is
/// another pack, the sentence names the codecs: "Installed 1.1.0 with HEVC and AAC (was HEVC) in 7 s."
std::string InstalledSentence(const PackIdentity& now, const std::optional<PackIdentity>& before,
                              std::chrono::milliseconds duration);

/// What is safe: "1.0.0 stays installed." or "No codec pack is installed."
std::string StaysSentence(const std::optional<std::string>& installed_version);

}  // namespace orbamira::packctl
