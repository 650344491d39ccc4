#include "updater/health.h"

#include <exception>
#include <filesystem>
#include <system_error>

#include "platform/constants.h"
#include "platform/log.h"
#include "platform/posix/file_status.h"
#include "platform/posix/pack_libraries.h"
#include "platform/posix/remove_tree.h"
#include "updater/health_record.h"
#include "updater/pack_status_helper.h"
#include "updater/plugin_notifier.h"
#include "updater/previous_pack.h"
#include "updater/recovery.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

enum class Health { kGood, kBad, kUnknown };

constexpr int kHealthy = 0;
constexpr int kUnhealthy = 3;  // of check-health

// Why the pack's own files contradict each other; empty when they fit.
std::string WhyNoPack(const std::optional<PackId>& pack) {
  if (!pack || pack->package.empty() || pack->version.empty()) {
    return "its INFO names no pack";
  }
  const bool has_aac = pack->package == kHevcAacPack;
  const bool has_hevc = has_aac || pack->package == kHevcPack;
  if ((has_hevc && !fs::exists(StatusOf(path::kHasHevcPath))) ||
      (has_aac && !fs::exists(StatusOf(path::kHasAacPath)))) {
    return "the marker of a codec is missing";
  }
  return "";
}

// A folder that cannot be read counts as one with programs: what is wrong with it is for check-health to tell.
bool HasPrograms() {
  std::error_code error;
  const fs::directory_iterator first(path::kHealthFolder, error);
  return error ? error != std::errc::no_such_file_or_directory : first != fs::directory_iterator();
}

Health Examine(wrapper::IOrbaCoreWrapper& core) {
  if (const std::string reason = WhyNoPack(PackIn(path::kPackFolderPath)); !reason.empty()) {
    ORBAMIRA_LOG_ERROR("The pack is not healthy: %s", reason.c_str());
    return Health::kBad;
  }
  if (!HasPrograms() && !HasLibraries(path::kPackFolderPath)) {
    return Health::kGood;
  }
  const int result = core.RunCommand({path::kHealthProgramPath, path::kPackFolderPath});
  if (result == kUnhealthy) {
    ORBAMIRA_LOG_ERROR("The pack is not healthy: it failed its health check");
    return Health::kBad;
  }
  return result == kHealthy ? Health::kGood : Health::kUnknown;
}

void Accept() {
  const PackId pack = PackIn(path::kPackFolderPath).value_or(PackId());
  if (Rejections rejections = Rejections::Read(); rejections.Forget(pack.version)) {
    rejections.Write();
  }
  NoteHealthyPack(pack);
}

}  // namespace

std::vector<RejectedVersion> RejectedVersions() { return Rejections::Read().all(); }

bool IsRejected(const std::string& version) { return Rejections::Read().Has(version); }

std::optional<std::string> PreviousVersion() {
  const std::optional<PackId> previous = PackIn(path::kPreviousPackFolderPath);
  return previous ? std::optional(previous->version) : std::nullopt;
}

bool IsUnchecked() {
  const std::optional<PackId> pack = PackIn(path::kPackFolderPath);
  const std::optional<PackId> healthy = HealthyPack();
  return pack && healthy && pack != healthy;
}

void PrepareUpdate(const UpdateLock& /*lock*/) try {
  EnsureHealthyPackNote();
  if (MustGiveUpPrevious()) {
    RemoveAtOnce(path::kPreviousPackFolderPath);
    ORBAMIRA_LOG_INFO("Removed the previous pack");
  }
} catch (const std::exception& error) {
  ORBAMIRA_LOG_ERROR("Failed to prepare an update: %s", error.what());
}

bool ConfirmHealth(const UpdateLock& lock, const IPackStatusHelper& status,
                   const std::shared_ptr<wrapper::IOrbaCoreWrapper>& core) {
  switch (Examine(*core)) {
    case Health::kGood:
      Accept();
      PrepareUpdate(lock);  // the previous pack has done its duty
      return true;
    case Health::kBad:
      RollBack(lock, status, kUnhealthyReason, core);
      return false;
    case Health::kUnknown:
      break;
  }
  ORBAMIRA_LOG_ERROR("The pack could not be checked, and stays");
  return true;
}

void RollBack(const UpdateLock& lock, const IPackStatusHelper& status, const std::string& reason,
              const std::shared_ptr<wrapper::IOrbaCoreWrapper>& core) {
  if (const auto pack = PackIn(path::kPackFolderPath); pack && !pack->version.empty()) {
    Rejections rejections = Rejections::Read();
    rejections.Add({pack->version, reason, std::time(nullptr)});
    rejections.Write();
  }
  if (const std::optional<PackId> previous = PackIn(path::kPreviousPackFolderPath)) {
    NoteHealthyPack(*previous);
  }
  const PluginNotifier notifier(core);
  PutPreviousBack(&notifier);
  EndRemovals(lock);
  if (IsPack(path::kPackFolderPath)) {
    status.SetAsUpToDate();
  } else {
    status.SetAsDownloadInstallFailed();
  }
}

}  // namespace orbamira::updater
