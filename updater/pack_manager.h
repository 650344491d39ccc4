#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"
#include "updater/enumerations.h"
#include "updater/kos_helper.h"
#include "updater/pack_handler.h"
#include "updater/pack_status_helper.h"
#include "updater/plugin_notifier.h"

namespace orbamira::updater {

class UpdateLock;

/// The library's entry point: checks for a new codec pack, downloads it, installs it, removes it, and answers questions
/// about the installed pack.
///
/// All work runs on the caller's thread and blocks until it is done. Meanwhile any process can read the progress from
/// the status store.
///
/// The flows (the first four operations) throw no standard exception. A failed flow returns false, writes at least one
/// line to the system log and, if it had begun to change something, records a failed status. After an exception, for
/// example over a malformed reply, the recorded status stays "in progress"; Recover() in updater/recovery.h mends it.
///
/// The recorded status is all that keeps two flows apart. So take an UpdateLock around them, and run them from one
/// process at a time. Do not use one object from two threads at once. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT IPackManager {
 public:
  virtual ~IPackManager() = default;

  /// Asks the update server for a newer pack, or for one with a codec that is missing. True when there is one; it is
  /// then recorded as waiting for download. False when there is none or the check failed; the recorded status then
  /// stays, unless it was the saving that failed.
  virtual bool CheckNewPack() const = 0;

  /// Downloads the pack that the server offers, verifies it and installs it. Refuses, with the status unchanged, while
  /// the recorded status permits no download with an install after it.
  virtual bool DownloadAndInstall() const = 0;

  /// Downloads the pack that the server offers and verifies it; it then waits for Install(). Refuses, with the status
  /// unchanged, while the recorded status permits no download.
  virtual bool Download() const = 0;

  /// Installs the pack that Download() left. Refuses, with the status unchanged, when none waits.
  virtual bool Install() const = 0;

  /// Always kPolicyAutoDownloadManualInstall in this version.
  virtual UpdatePolicy GetPackUpdatePolicy() const = 0;

  /// Has no effect in this version.
  virtual void SetPackUpdatePolicy(UpdatePolicy policy) = 0;

  /// Whether an application asks for AAC while the installed pack lacks it. Throws as IsCodecRequested().
  virtual bool IsAacNeeded() const = 0;

  /// Always false: HEVC is part of every pack, so it never decides which pack to fetch.
  virtual bool IsHevcNeeded() const = 0;

  /// Whether a pack is installed.
  virtual bool CheckPackExists() const = 0;

  /// When the installed pack's information file was modified, in seconds since 1970; 0 without a pack.
  virtual long GetPackLastUpdateTime() const = 0;

  /// Removes the installed pack. True when it is gone, also when there was none. The recorded status stays, and no
  /// plugin is notified.
  virtual bool RemovePack() const = 0;

  /// Whether any application asks for the codec in the codec-requirements file; false when the file is missing or is no
  /// JSON. Reads it under its lock, so it waits while another process holds that. Throws std::system_error when the
  /// lock cannot be taken, and Json::Exception when the file holds no object or nests too deep.
  virtual bool IsCodecRequested(const std::string& codec) const = 0;

  /// Whether the installed pack carries AAC.
  virtual bool HasAacCurrently() const = 0;

  /// Whether the installed pack carries HEVC.
  virtual bool HasHevcCurrently() const = 0;
};

/// The manager that does the work through six collaborators, which it keeps for its life.
class ORBAMIRA_EXPORT PackManager : public IPackManager {
 public:
  /// Makes a manager that works with the platform's own services. Empty, with one line in the log, when one of them
  /// cannot be made.
  static std::unique_ptr<IPackManager> Create();

  /// Makes a manager that works with the given collaborators. One may be null if no operation that is called needs it.
  PackManager(std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg,
              std::shared_ptr<IKOSHelper> kos_helper, std::shared_ptr<IPackStatusHelper> status_helper,
              std::shared_ptr<IPackHandler> pack_handler, std::shared_ptr<IPluginNotifier> plugin_notifier);

  bool CheckNewPack() const override;
  bool DownloadAndInstall() const override;
  bool Download() const override;
  bool Install() const override;
  UpdatePolicy GetPackUpdatePolicy() const override;
  void SetPackUpdatePolicy(UpdatePolicy policy) override;
  bool IsAacNeeded() const override;
  bool IsHevcNeeded() const override;
  bool CheckPackExists() const override;
  long GetPackLastUpdateTime() const override;
  bool RemovePack() const override;
  bool IsCodecRequested(const std::string& codec) const override;
  bool HasAacCurrently() const override;
  bool HasHevcCurrently() const override;

  /// Asks the update server for the download information of the pack with or without AAC. Waits as long as the server
  /// takes. False, with a line in the log, when it cannot be had; `pack_info` is then unspecified. Throws
  /// Json::Exception for a reply that is JSON but no object, or that nests too deep.
  bool FetchDownloadInfo(bool with_aac, Json::Value& pack_info) const;

  /// Whether the downloaded file has the digest in `pack_info`; false when that has none.
  bool VerifyChecksum(const Json::Value& pack_info) const;

  /// The name of the pack with or without AAC, which is its key in the update server's reply.
  std::string GetDownloadPackName(bool with_aac) const;

  /// Makes the download directory and downloads the package into it. `progress` is called as in
  /// wrapper::DownloadWrapper.
  bool DoDownload(const std::string& link, std::function<void(long, long)>& progress) const;

  /// Moves an installed pack aside and puts the downloaded one in place; the plugins are notified of both. `version`
  /// and `name` are the new pack's; `step` is called with each step.
  bool DoInstall(const std::string& version, const std::string& name, std::function<void(InstallStep)>& step) const;

  /// Puts the downloaded pack in place and removes the download directory. Notifies no plugin.
  bool DoInstallStep(std::function<void(InstallStep)>& step) const;

  /// Moves the installed pack aside. Notifies no plugin.
  bool DoUninstallStep(std::function<void(InstallStep)>& step) const;

  /// Runs `action` between the "pre" and the "post" notification of the plugins. A notification that fails does not
  /// stop it; after an action that fails there is no "post". Throws std::out_of_range for a number that is no event.
  bool NotifyStep(NotifyPluginEvent event, std::function<bool()> action, const std::string& name,
                  const std::string& version, NotifyPluginStatus status) const;

 private:
  // Asks the handler which version an offer has.
  friend ORBAMIRA_EXPORT bool RepeatFailedUpdate(const UpdateLock& lock, const PackManager& manager,
                                                 IPackStatusHelper& status);

  /// Fetches the download information, downloads the pack and verifies it. Both downloading flows begin so.
  bool DownloadOffer(bool with_aac, Json::Value& pack_info, std::function<void(long, long)>& progress) const;

  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
  std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg_;
  std::shared_ptr<IKOSHelper> kos_helper_;
  std::shared_ptr<IPackStatusHelper> status_helper_;
  std::shared_ptr<IPackHandler> pack_handler_;
  std::shared_ptr<IPluginNotifier> plugin_notifier_;
};

}  // namespace orbamira::updater
