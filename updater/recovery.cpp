#include "updater/recovery.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/log.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/posix/atomic_file.h"
#include "platform/posix/errors.h"
#include "platform/posix/file_status.h"
#include "platform/posix/remove_tree.h"
#include "platform/posix/sync_folder.h"
#include "updater/health_record.h"
#include "updater/pack_status_helper.h"
#include "updater/previous_pack.h"
#include "updater/status_record.h"
#include "updater/update_lock.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

bool Exists(const fs::path& path) { return fs::exists(LinkStatusOf(path)); }

// Whether the name is "PREFIX.new", or "PREFIX.XXXXXX" as mkstemp makes it. A file that was set aside as
// "PREFIX.broken" looks the same, but is no temporary file.
bool IsTemporaryOf(const std::string& prefix, const std::string& name) {
  constexpr std::size_t kSuffixLength = 6;
  if (name == ReservedFile::NameBeside(prefix)) {
    return true;
  }
  if (name.size() != prefix.size() + 1 + kSuffixLength || !name.starts_with(prefix + ".") ||
      name.ends_with(".broken")) {
    return false;
  }
  return std::all_of(name.end() - kSuffixLength, name.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
}

bool IsHalfBuiltPack(const std::string& name) {
  return name.starts_with(std::string(".").append(kPackFolderName).append(".partial."));
}

// A folder that an interrupted removal has moved aside.
bool IsHalfRemoved(const std::string& name) { return IsTemporaryOf(".removed", name); }

// The folders in which the updater removes folders.
std::array<fs::path, 2> FoldersOfRemovals() { return {kTargetFolder, fs::path(kDownloadFolder).parent_path()}; }

const char* Text(PackStatus status) { return kPackStatusTexts.at(static_cast<std::size_t>(status)); }

using NameTest = std::function<bool(const std::string&)>;

/// A file that is replaced whole, so that an interrupted program may leave a temporary file beside it.
struct ReplacedFile {
  const char* path;
  const char* lock;   ///< another process may be writing a temporary file unless this is held; null: the update lock
  const char* whose;  ///< continuing "cannot remove the temporary files of "
};

std::array<ReplacedFile, 8> ReplacedFiles() {
  return {{{path::kPackStatusFile, path::kPackStatusLock, "the status store"},
           {path::kAcceptedPackagesFile, nullptr, "the accepted packages"},
           {path::kAccountFile, path::kAccountLock, "the account"},
           {path::kHealthFile, nullptr, "the health record"},
           {path::kHealthyPackFile, nullptr, "the note of the healthy pack"},
           {path::kOfferFile, nullptr, "the offer"},
           {path::kHoldFile, nullptr, "the hold"},
           {path::kTempPluginAppIdPath, nullptr, "the plugins' answer"}}};
}

// The entries of the folder that match, sorted; none when there is no folder.
std::vector<fs::path> Matching(const fs::path& folder, const NameTest& matches) {
  std::vector<fs::path> found;
  if (!fs::exists(StatusOf(folder))) {
    return found;
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (matches(entry.path().filename())) {
      found.push_back(entry.path());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::vector<fs::path> TemporariesOf(const ReplacedFile& file) {
  const fs::path path = file.path;
  return Matching(path.parent_path(),
                  [&](const std::string& name) { return IsTemporaryOf(path.filename().string(), name); });
}

class Recovery {
 public:
  RecoveryReport Run() {
    Step("make the folders", [this] { MakeFolders(); });
    Step("restore the pack", [this] { RestorePack(); });
    Step("remove unpacked files", [this] { RemoveUnpacked(); });
    Step("take a rejected pack back", [this] { TakeBackRejected(); });
    Step("look after the previous pack", [this] { LookAfterPrevious(); });
    EndRemovals();  // early, because the next steps need room on the disk
    Step("note the installed pack", [] { EnsureHealthyPackNote(); });
    for (const ReplacedFile& file : ReplacedFiles()) {
      Step((std::string("remove the temporary files of ") + file.whose).c_str(), [&] { RemoveTemporaries(file); });
    }
    Step("remove the plugins' answer", [this] { Remove(path::kTempPluginAppIdPath, "the plugins' old answer"); });
    Step("mend the recorded status", [this] { MendStatus(); });
    Step("remove the download", [this] { RemoveDownload(); });
    return std::move(report_);
  }

  void EndRemovals() {
    Step("end removals", [this] {
      for (const fs::path& folder : FoldersOfRemovals()) {
        RemoveMatching(folder, "the rest of an interrupted removal", IsHalfRemoved);
      }
    });
  }

 private:
  void Step(const char* what, const std::function<void()>& step) {
    try {
      step();
    } catch (const std::exception& error) {
      report_.failed.push_back(std::string("cannot ") + what + ": " + error.what());
      ORBAMIRA_LOG_ERROR("Recovery: %s", report_.failed.back().c_str());
    }
  }

  void ReportDone(const std::string& what) {
    report_.done.push_back(what);
    ORBAMIRA_LOG_INFO("Recovery: %s", what.c_str());
  }

  void Remove(const fs::path& path, const std::string& what) {
    if (Exists(path)) {
      RemoveAtOnce(path);
      ReportDone("removed " + what + " " + path.string());
    }
  }

  void MakeFolders() {
    for (const fs::path& folder : {fs::path(kTargetFolder), fs::path(path::kPackStatusFile).parent_path()}) {
      if (fs::is_directory(StatusOf(folder))) {
        continue;
      }
      if (const int made = wrapper::OrbaSDKWrapper().MakeDirectory(folder); made < 0) {
        ThrowErrno(folder, -made);
      }
      ReportDone("created the missing folder " + folder.string());
    }
  }

  void RestorePack() {
    const fs::path pack = path::kPackFolderPath;
    const fs::path backup = path::kBackupPackFolderPath;
    was_cut_ = Exists(backup);
    if (!IsPack(pack)) {
      Remove(pack, "the rest of a pack");
      if (IsPack(backup)) {
        fs::rename(backup, pack);
        SyncFolderOf(pack);
        ReportDone("restored the previous pack to " + pack.string());
      }
    }
    // A backup that cannot be kept stays: it may be the only way back from a bad pack.
    Step("keep the pack's backup", [&] {
      if (KeepBackup()) {
        ReportDone("put the pack's backup away");  // as the previous pack, if it is another one than the installed
      }
      Remove(backup, "the pack's backup");
    });
  }

  // An interrupted way back. The rejection was on the disk before anything moved.
  void TakeBackRejected() {
    const std::optional<PackId> pack = PackIn(path::kPackFolderPath);
    if (!pack || !Rejections::Read().Has(pack->version)) {
      return;
    }
    PutPreviousBack(nullptr);
    took_back_ = true;
    ReportDone("took the rejected pack " + pack->version + " back");
  }

  void LookAfterPrevious() {
    const fs::path previous = path::kPreviousPackFolderPath;
    if (!IsPack(previous) || MustGiveUpPrevious()) {
      Remove(previous, "the previous pack");
    }
  }

  void RemoveUnpacked() {
    Remove(path::kTempPackFolderPath, "the unpacked pack");
    RemoveMatching(kTargetFolder, "the half-built pack", IsHalfBuiltPack);
  }

  void RemoveTemporaries(const ReplacedFile& file) {
    const std::optional<store::FileLock> lock =
        file.lock == nullptr ? std::nullopt : std::optional<store::FileLock>(file.lock);
    for (const fs::path& path : TemporariesOf(file)) {
      Remove(path, "the temporary file");
    }
  }

  void RemoveMatching(const fs::path& folder, const std::string& what, const NameTest& matches) {
    for (const fs::path& path : Matching(folder, matches)) {
      Remove(path, what);
    }
  }

  void MendStatus() {
    const auto helper = PackStatusHelper::Create();
    if (helper == nullptr) {
      throw std::runtime_error(std::string("cannot use the status store ") + path::kPackStatusFile);
    }
    std::string recorded = "an unreadable text";
    try {
      const StatusRecord record = ReadStatusRecord();
      recorded = Text(record.status);
      status_ = Mended(record);
    } catch (const std::logic_error& error) {
      ORBAMIRA_LOG_ERROR("Recovery: %s", error.what());
      status_ = kStatusDownloadInstallFailed;
    }
    if (recorded != Text(*status_)) {
      Record(*helper, recorded);
    }
  }

  // The status when no update is in progress. The last step is recorded after the last plugin was notified.
  PackStatus Mended(const StatusRecord& record) const {
    const bool installed = fs::is_regular_file(StatusOf(path::kPackInfoPath));
    switch (record.status) {
      case kStatusLost:
        return !installed ? kStatusLost : was_cut_ ? kStatusDownloadInstallFailed : kStatusUpToDate;
      case kStatusDownloading:
        return kStatusDownloadFailed;
      case kStatusInstalling:
      case kStatusDownloadingInstalling:
        return installed && record.install_step == kInstallStepTexts[kStepPostInstall] ? kStatusUpToDate
                                                                                       : kStatusDownloadInstallFailed;
      case kStatusNeedInstall:
      case kStatusInstallFailed:
        return fs::is_regular_file(StatusOf(path::kDownloadedOpkPath)) ? record.status : kStatusDownloadInstallFailed;
      case kStatusNeedDownload:
      case kStatusDownloadFailed:
      case kStatusDownloadInstallFailed:
      case kStatusUpToDate:
        break;
    }
    return took_back_ && !installed ? kStatusDownloadInstallFailed : record.status;
  }

  void Record(const IPackStatusHelper& helper, const std::string& instead_of) {
    if (status_ == kStatusDownloadFailed) {
      helper.SetAsDownloadFailed();
    } else if (status_ == kStatusUpToDate) {
      helper.SetAsUpToDate();
    } else {
      helper.SetAsDownloadInstallFailed();
    }
    ReportDone("changed the recorded status from " + instead_of + " to " + Text(*status_));
  }

  // Keeps a package that waits to be installed. When the status is not known, the package may be waiting.
  void RemoveDownload() {
    if (status_ && status_ != kStatusNeedInstall && status_ != kStatusInstallFailed) {
      Remove(kDownloadFolder, "the download");
    }
  }

  RecoveryReport report_;
  bool was_cut_ = false;    // an update was interrupted while the old pack was in its backup
  bool took_back_ = false;  // the installed pack was rejected
  std::optional<PackStatus> status_;
};

}  // namespace

RecoveryReport Recover(const UpdateLock& /*lock*/) { return Recovery().Run(); }

void EndRemovals(const UpdateLock& /*lock*/) { Recovery().EndRemovals(); }

bool ConfirmInstall(const UpdateLock& lock, const IPackStatusHelper& status) {
  try {
    KeepBackup();
  } catch (const std::system_error& error) {
    ORBAMIRA_LOG_ERROR("Failed to keep the pack's backup: %s", error.what());
  }
  EndRemovals(lock);
  if (fs::is_regular_file(StatusOf(path::kPackInfoPath))) {
    return true;
  }
  ORBAMIRA_LOG_ERROR("The new pack did not get into place");
  status.SetAsDownloadInstallFailed();
  return false;
}

std::vector<std::string> FindLeftovers() {
  std::vector<std::string> found;
  for (const fs::path& path : {fs::path(path::kBackupPackFolderPath), fs::path(path::kTempPackFolderPath)}) {
    if (Exists(path)) {
      found.push_back(path.string());
    }
  }
  const auto [packages, cache] = FoldersOfRemovals();
  for (const auto& [folder, matches] :
       {std::pair<fs::path, NameTest>(packages, IsHalfBuiltPack), {packages, IsHalfRemoved}, {cache, IsHalfRemoved}}) {
    for (const fs::path& path : Matching(folder, matches)) {
      found.push_back(path.string());
    }
  }
  for (const ReplacedFile& file : ReplacedFiles()) {
    for (const fs::path& path : TemporariesOf(file)) {
      found.push_back(path.string());
    }
  }
  return found;
}

}  // namespace orbamira::updater
