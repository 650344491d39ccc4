#pragma once

#include <json/value.h>

#include <ctime>
#include <optional>
#include <string>

/// When the update server last answered a check, and what it said.
namespace orbamira::packctl {

/// A release that only a share of the appliances is offered.
struct StagedRelease {
  std::string version = {};
  double percent = 0;  ///< of the appliances that are offered it

  friend bool operator==(const StagedRelease&, const StagedRelease&) = default;
};

/// What the update server said of releases beside the offer.
struct OtherReleases {
  std::optional<StagedRelease> staged = {};  ///< newer than the offer, and not for this appliance yet
  std::string withdrawn = {};                ///< the installed version, if it was taken back; otherwise empty

  friend bool operator==(const OtherReleases&, const OtherReleases&) = default;
};

/// A check that the update server answered.
struct AnsweredCheck {
  std::time_t time = 0;      ///< when, in seconds since the epoch
  std::string version = {};  ///< on offer; empty when not known
  bool is_news = false;      ///< whether the offer was worth an update
  OtherReleases others = {};
  bool is_last = true;  ///< nothing was added to the history since, as far as the files' times tell

  /// Whether the newest entry of the history, of this time, is newer than the check.
  [[nodiscard]] bool IsOlderThan(std::time_t newest_entry) const {
    return time < newest_entry || (time == newest_entry && !is_last);
  }

  friend bool operator==(const AnsweredCheck&, const AnsweredCheck&) = default;
};

/// Notes that the update server has answered a check just now, in the file `checked` beside the download folder. By the
/// file's age the services see after a boot whether the daily check was missed. Where it cannot be noted, one check
/// more is made.
void NoteAnsweredCheck(const std::string& version, bool is_news, const OtherReleases& others = {});

/// The last one; empty when none was noted. Of a note that a power cut has torn only the time is known.
std::optional<AnsweredCheck> ReadAnsweredCheck();

/// A release as answers hold it: {"version", "rollout"}; null without one.
Json::Value StagedReleaseJson(const std::optional<StagedRelease>& release);

/// As an answer holds it: {"time", "version", "is_news", "staged", "withdrawn"}; null without a check.
Json::Value AnsweredCheckJson(const std::optional<AnsweredCheck>& check);

}  // namespace orbamira::packctl
