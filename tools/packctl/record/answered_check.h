#pragma once

#include <json/value.h>

#include <ctime>
#include <optional>
#include <string>

/// When the update server last answered a check, and what it said.
namespace orbamira::packctl {

/// A check that the update server answered.
struct AnsweredCheck {
  std::time_t time = 0;      ///< when, in seconds since the epoch
  std::string version = {};  ///< on offer; empty when not known
  bool is_news = false;      ///< whether the offer was worth an update
  bool is_last = true;       ///< nothing was added to the history since, as far as the files' times tell

  /// Whether the newest entry of the history, of this time, is newer than the check.
  [[nodiscard]] bool IsOlderThan(std::time_t newest_entry) const {
    return time < newest_entry || (time == newest_entry && !is_last);
  }

  friend bool operator==(const AnsweredCheck&, const AnsweredCheck&) = default;
};

/// Notes that the update server has answered a check just now, in the file `checked` beside the download folder. By the
/// file's age the services see after a boot whether the daily check was missed. Where it cannot be noted, one check
/// more is made.
void NoteAnsweredCheck(const std::string& version, bool is_news);

/// The last one; empty when none was noted. Of a note that a power cut has torn only the time is known.
std::optional<AnsweredCheck> ReadAnsweredCheck();

/// As an answer holds it: {"time", "version", "is_news"}; null without a check.
Json::Value AnsweredCheckJson(const std::optional<AnsweredCheck>& check);

}  // namespace orbamira::packctl
