#include "tools/packctl/view/history_text.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include "platform/printable.h"
#include "tools/packctl/view/local_time.h"
#include "tools/packctl/view/result_words.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kMargin = "    ";

std::optional<PackIdentity> Named(std::optional<PackIdentity> pack) {
  if (pack && pack->version.empty()) {
    pack->version = "a pack of unknown version";
  }
  return pack;
}

std::string FailureWords(const HistoryEntry& entry) {
  if (entry.failure) {
    return entry.failure->message + " (" + entry.failure->code + ")";
  }
  return entry.errors.empty() ? "the reason is not known" : entry.errors.back();  // of an older release
}

// Results are words for programs: "new_pack".
std::string ResultWords(std::string result) {
  std::replace(result.begin(), result.end(), '_', ' ');
  return Capitalized(result);
}

std::string EndSentence(const HistoryEntry& entry) {
  const std::chrono::milliseconds duration(entry.duration_ms);
  const PackIdentity unknown{.version = "a pack"};
  const PackIdentity now = Named(entry.to).value_or(unknown);
  if (entry.result == "waits") {
    return Capitalized(FailureWords(entry)) + ".";
  }
  if (entry.exit != 0) {
    const auto stays = entry.to ? std::optional(entry.to->version) : std::nullopt;
    const std::string why = entry.result == "cancelled" ? "" : ": " + FailureWords(entry);
    return ResultWords(entry.result) + why + ". " + StaysSentence(stays);
  }
  if (entry.result == "new_pack") {
    return "Found " + now.version + ".";
  }
  if (entry.command == "download" || entry.result == "downloaded") {
    return "Downloaded " + now.version + " in " + TookWords(duration) + ".";
  }
  if (entry.command == "install" || entry.command == "update") {
    return InstalledSentence(now, Named(entry.from), duration);
  }
  if (entry.command == "hold" || entry.command == "unhold") {
    return entry.command == "hold" ? "Held updates." : "Ended the hold.";
  }
  if (entry.command == "remove") {
    return "Removed " + Named(entry.from).value_or(unknown).version + ".";
  }
  if (entry.command == "rollback") {
    return "Went back to " + now.version + " (was " + Named(entry.from).value_or(unknown).version + ").";
  }
  return entry.command == "recover" ? "Cleaned up." : ResultWords(entry.result) + ".";
}

std::string PackWords(const std::optional<PackIdentity>& pack) {
  if (!pack) {
    return "no pack";
  }
  const std::string version = pack->version.empty() ? "of unknown version" : pack->version;
  return pack->package.empty() ? version : pack->package + " " + version;
}

}  // namespace

std::string HistoryText(const HistoryEntry& entry, bool verbose) {
  constexpr std::size_t kCommandWidth = 10;
  std::string command = Printable(entry.command);
  command.resize(std::max(kCommandWidth, command.size()), ' ');
  std::string text = LocalTime(entry.time) + "  " + command + Printable(EndSentence(entry)) + "\n";
  if (verbose) {
    text += kMargin + Printable("from " + PackWords(entry.from) + " to " + PackWords(entry.to)) + "\n";
    for (const std::string& error : entry.errors) {
      text += kMargin + Printable(error) + "\n";
    }
  }
  return text;
}

}  // namespace orbamira::packctl
