#include "updater/previous_pack.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <filesystem>
#include <system_error>

#include "platform/constants.h"
#include "platform/log.h"
#include "platform/orba_core_wrapper.h"
#include "platform/posix/errors.h"
#include "platform/posix/file_status.h"
#include "platform/posix/remove_tree.h"
#include "platform/posix/sync_folder.h"
#include "platform/removal.h"
#include "updater/health_record.h"
#include "updater/plugin_notifier.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

std::uintmax_t SizeOf(const fs::path& folder) {
  std::uintmax_t size = 0;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    struct stat about {};
    if (lstat(entry.path().c_str(), &about) != 0) {
      ThrowErrno(entry.path());
    }
    size += S_ISREG(about.st_mode) ? static_cast<std::uintmax_t>(about.st_size) : 0;
  }
  return size;
}

// An update needs room for the package, the unpacked pack and, where files cannot be linked, a copy of it.
bool IsRoomForUpdate() {
  constexpr std::uintmax_t kCopies = 3;
  struct statvfs disk {};
  if (statvfs(kTargetFolder, &disk) != 0) {
    return true;
  }
  const std::uintmax_t free = std::uintmax_t{disk.f_bavail} * disk.f_frsize;
  return free >=
         kCopies * SizeOf(IsPack(path::kPackFolderPath) ? path::kPackFolderPath : path::kPreviousPackFolderPath);
}

bool IsWanted() {
  wrapper::OrbaCoreWrapper core;
  const std::string own = core.GetKeyValue(path::kPkgSetting, common::kKeepPreviousPack);
  return (own.empty() ? core.GetKeyValue(path::kDefaultPkgSetting, common::kKeepPreviousPack) : own) != "no";
}

// Who tells plugins of the way back, as the flows tell of an update.
class Telling {
 public:
  explicit Telling(const IPluginNotifier* notifier) : notifier_(notifier) {}

  void Tell(NotifyPluginEvent event, NotifyPluginTiming timing, const PackId& pack, NotifyPluginStatus status) const {
    if (notifier_ != nullptr && !notifier_->NotifyPlugin(event, timing, pack.package, pack.version, status)) {
      ORBAMIRA_LOG_ERROR("Failed to notify: [timing]: %s, [event]: %s", timing == kTimingPre ? "pre" : "post",
                         event == kEventInstall ? "install" : "uninstall");
    }
  }

 private:
  const IPluginNotifier* notifier_;
};

// What is left of it elsewhere is removed later.
void MoveAway(const std::string& folder) {
  try {
    RemoveAtOnce(folder);
  } catch (const std::system_error&) {
    if (fs::exists(LinkStatusOf(folder))) {
      throw;
    }
  }
}

}  // namespace

bool IsPack(const std::string& folder) {
  return fs::is_symlink(LinkStatusOf(folder)) || fs::is_regular_file(StatusOf(fs::path(folder) / "INFO"));
}

bool MustGiveUpPrevious() {
  if (!IsPack(path::kPreviousPackFolderPath)) {
    return false;
  }
  return !IsRoomForUpdate() || (!IsWanted() && !IsUnchecked());
}

bool KeepBackup() {
  const std::string backup = path::kBackupPackFolderPath;
  if (!IsPack(path::kPackFolderPath) || !IsPack(backup) || fs::is_symlink(LinkStatusOf(backup))) {
    return false;
  }
  RemoveForUpdater(backup);
  return true;
}

void PutPreviousBack(const IPluginNotifier* notifier) {
  KeepBackup();
  const Telling plugins(notifier);
  const PackId bad = PackIn(path::kPackFolderPath).value_or(PackId());
  const bool has_previous = IsPack(path::kPreviousPackFolderPath);
  const PackId previous = PackIn(path::kPreviousPackFolderPath).value_or(PackId());
  const NotifyPluginStatus meaning = has_previous ? kNotifyUpgrade : kNotifyUninstall;
  plugins.Tell(kEventUninstall, kTimingPre, bad, meaning);
  if (has_previous) {
    MoveAway(path::kBackupPackFolderPath);
    fs::rename(path::kPreviousPackFolderPath, path::kBackupPackFolderPath);
  }
  MoveAway(path::kPackFolderPath);
  plugins.Tell(kEventUninstall, kTimingPost, bad, meaning);
  if (has_previous) {
    plugins.Tell(kEventInstall, kTimingPre, previous, meaning);
    fs::rename(path::kBackupPackFolderPath, path::kPackFolderPath);
  }
  SyncFolderOf(path::kPackFolderPath);
  if (has_previous) {
    plugins.Tell(kEventInstall, kTimingPost, previous, meaning);
  }
}

}  // namespace orbamira::updater
