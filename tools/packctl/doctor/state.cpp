#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "platform/constants.h"
#include "platform/json/json_object.h"
#include "platform/posix/file_status.h"
#include "platform/posix/unique_fd.h"
#include "tools/packctl/doctor/checks.h"
#include "tools/packctl/host/codec_report.h"
#include "tools/packctl/policy/hold.h"
#include "tools/packctl/record/history.h"
#include "tools/packctl/record/lock_holder.h"
#include "tools/packctl/record/recorded_status.h"
#include "updater/health.h"
#include "updater/recovery.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kState = "state";
constexpr const char* kLocks = "locks";
constexpr const char* kCodecs = "codecs";
constexpr const char* kRecover = "if no program is at work on it, run \"packctl recover\"";

// Whether the lock is free, or there is none. Held for no longer than it takes to learn it, and never made.
bool IsFree(const char* lock_path) {
  const UniqueFd lock(open(lock_path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  return !lock.valid() || flock(lock.get(), LOCK_SH | LOCK_NB) == 0;
}

// The library holds its locks for an instant at a time.
bool BecomesFree(const char* lock_path) {
  constexpr int kTries = 60;
  constexpr int kPauseMs = 50;
  for (int i = 0; i < kTries; ++i) {
    if (IsFree(lock_path)) {
      return true;
    }
    poll(nullptr, 0, kPauseMs);
  }
  return false;
}

/// False also for a user who may not look into the download folder.
bool PackageIsMissing() {
  std::error_code error;
  const fs::file_type type = StatusOf(path::kDownloadedOpkPath, error).type();
  return type != fs::file_type::regular && error != std::errc::permission_denied;
}

void CheckRecordedStatus(updater::PackStatus status, Findings& findings) {
  if (IsUnderWay(status)) {
    findings.push_back({kState,
                        std::string("the recorded status is ") + StatusText(status) + ", but no packctl is at work",
                        kRecover});
  }
  if (status == updater::kStatusNeedInstall && PackageIsMissing()) {
    findings.push_back({kState, "the recorded status is need_install, but no package is there", kRecover});
  }
}

// Under its lock, because the record is written in place. A lock that somebody keeps is a finding of its own.
void CheckStatusStore(Findings& findings) {
  const std::string file = path::kPackStatusFile;
  try {
    if (BecomesFree(path::kPackStatusLock)) {
      CheckRecordedStatus(updater::ReadStatusRecord().status, findings);
    }
  } catch (const std::domain_error& error) {
    findings.push_back({kState, std::string(error.what()) + ": " + file + " is damaged", kRecover});
  } catch (const std::system_error& error) {
    findings.push_back({kState, file + " cannot be read: " + error.code().message(), kRecover});
  }
  if (const std::string broken = file + ".broken"; fs::exists(LinkStatusOf(broken))) {
    findings.push_back({kState, "a damaged status store was set aside as " + broken,
                        "see what it tells of the cause, a failing disk perhaps, and remove it"});
  }
}

void CheckPack(Findings& findings) {
  if (fs::exists(StatusOf(path::kPackFolderPath)) && !fs::is_regular_file(StatusOf(path::kPackInfoPath))) {
    findings.push_back({kState, std::string(path::kPackFolderPath) + " is no whole pack", kRecover});
  }
  if (updater::IsUnchecked()) {
    findings.push_back({kState, "an interrupted update has left a pack whose health was not checked",
                        "run \"packctl check\", which checks it first"});
  }
}

// The applications that ask for a codec, as far as they are named.
std::string ApplicationsIn(const Json::Value& ids) {
  std::string named;
  for (const Json::Value& id : ids) {
    if (id.isString()) {
      named += (named.empty() ? "" : ", ") + id.asString();
    }
  }
  return named.empty() ? "an application" : named;
}

void CheckRequestedCodecs(const Json::Value& requirements, Findings& findings) {
  for (const std::string& codec : requirements.getMemberNames()) {
    const Json::Value& ids = requirements[codec];
    // As the library counts: a plain value asks for nothing.
    if (ids.size() > 0 && codec != kHevc && codec != kAac) {  // NOLINT(readability-container-size-empty)
      findings.push_back({kCodecs, "no pack provides " + codec + ", which is asked for by " + ApplicationsIn(ids),
                          std::string("correct ") + path::kCodecRequirementsPath + ", or ask the maker for the codec"});
    }
  }
}

void CheckRequirements(Findings& findings) {
  const std::string file = path::kCodecRequirementsPath;
  const FileText read = ReadText(file);
  const std::optional<Json::Value> requirements = read.text ? ParseJsonObject(*read.text) : std::nullopt;
  if (requirements) {
    CheckRequestedCodecs(*requirements, findings);
  } else if (read.text || !read.problem.empty()) {
    const std::string why = read.problem.empty() ? "" : ": " + read.problem;
    findings.push_back({kState, file + " holds no JSON object, so what applications ask for is not known" + why,
                        "have the applications write it anew"});
  }
}

void CheckHold(Findings& findings) {
  if (IsHoldDamaged()) {
    findings.push_back({kState, "the hold is damaged, and holds updates without an end",
                        R"(run "packctl unhold", then "packctl hold" if updates are to wait)"});
  }
}

void CheckHistory(Findings& findings) {
  try {
    if (const History history = ReadHistory(); history.damaged > 0) {
      findings.push_back({kState, "unreadable lines in the history: " + std::to_string(history.damaged),
                          std::string("harmless; remove ") + path::kHistoryFile + " to be rid of them"});
    }
  } catch (const std::exception& error) {
    findings.push_back({kState, std::string("the history cannot be read: ") + error.what(), "move it away"});
  }
}

}  // namespace

Findings CheckLocks() {
  Findings findings;
  for (const char* lock : {path::kPackStatusLock, path::kCodecRequirementsLock, path::kAccountLock}) {
    if (!BecomesFree(lock)) {
      findings.push_back({kLocks, std::string("another process keeps ") + lock + ", and updates wait for it",
                          std::string("find it with \"fuser -v ") + lock + "\" and end it"});
    }
  }
  constexpr std::time_t kLong = 6L * 60 * 60;
  struct stat about {};
  if (ChangeIsUnderWay() && stat(path::kPackctlLock, &about) == 0 && about.st_mtime < std::time(nullptr) - kLong) {
    findings.push_back({kLocks, "a packctl has been at work for over 6 hours",
                        std::string("find it with \"fuser -v ") + path::kPackctlLock + "\" and end it"});
  }
  return findings;
}

// Asked of the kernel: taking the lock for a moment would refuse an update that starts just then.
bool ChangeIsUnderWay() { return HolderOf(path::kPackctlLock).has_value(); }

Findings CheckState() {
  Findings findings;
  CheckStatusStore(findings);
  CheckPack(findings);
  for (const std::string& leftover : updater::FindLeftovers()) {
    findings.push_back({kState, leftover + " was left behind", kRecover});
  }
  CheckRequirements(findings);
  CheckHold(findings);
  CheckHistory(findings);
  return findings;
}

}  // namespace orbamira::packctl
