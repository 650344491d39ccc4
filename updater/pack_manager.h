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

/// The library's entry point: checks for a new codec pack, downloads it, installs it, removes it, and answers questions
/// about the installed pack.
///
/// All work runs on the caller's thread and blocks until it is done; meanwhile its state can be read from the status
/// store by any process. A failure is false, one line or more in the system log and, where an operation had begun, a
/// failed status; an operation that an exception ended, a malformed reply for one, leaves the status under way behind.
/// The flows let no standard exception out. Two flows exclude each other only by the recorded status, so one
/// process at a time should run them. One object is not for use from two threads at once. The order of the operations
/// is a binary contract.
class ORBAMIRA_EXPORT IPackManager {
 public:
  virtual ~IPackManager() = default;

  /// Asks the update server; true when a newer pack, or one with a codec that is missing, was recorded as waiting for
  /// download. False when there is none or the check failed; the recorded status is then unchanged, unless saving it is
  /// what failed.
  virtual bool CheckNewPack() const = 0;

  /// Downloads the pack that the server offers and installs it.
  virtual bool DownloadAndInstall() const = 0;

  /// Downloads and verifies the pack that the server offers; it then waits for Install().
  virtual bool Download() const = 0;

  /// Installs the pack that Download() brought.
  virtual bool Install() const = 0;

  /// Always kPolicyAutoDownloadManualInstall in this version.
  virtual UpdatePolicy GetPackUpdatePolicy() const = 0;

  /// Has no effect in this version.
  virtual void SetPackUpdatePolicy(UpdatePolicy policy) = 0;

  /// Whether an application asks for AAC and the installed pack lacks it.
  virtual bool IsAacNeeded() const = 0;

  /// Always false: HEVC is part of every pack, so it never decides which pack to fetch.
  virtual bool IsHevcNeeded() const = 0;

  /// Whether a pack is installed.
  virtual bool CheckPackExists() const = 0;

  /// When the installed pack's information file was modified, in seconds since the epoch; 0 without a pack.
  virtual long GetPackLastUpdateTime() const = 0;

  /// Removes the installed pack. Neither the recorded status nor the plugins are told.
  virtual bool RemovePack() const = 0;

  /// Whether any application asks for the codec in the codec-requirements file, which is read under its lock. Throws
  /// std::system_error when the lock cannot be had, Json::Exception when the file holds no object or nests too deep.
  virtual bool IsCodecRequested(const std::string& codec) const = 0;

  /// Whether the installed pack carries AAC.
  virtual bool HasAacCurrently() const = 0;

  /// Whether the installed pack carries HEVC.
  virtual bool HasHevcCurrently() const = 0;
};

/// The manager over its six collaborators, which it shares for its whole life.
class ORBAMIRA_EXPORT PackManager : public IPackManager {
 public:
  /// A manager over the platform's own services; empty, with one line in the log, when one of them cannot be made.
  static std::unique_ptr<IPackManager> Create();

  /// A manager over the given collaborators.
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

  /// Asks the update server for the download information of the pack with or without AAC. `pack_info` is unspecified
  /// when the result is false. A reply that is JSON but no object, or that nests too deep, throws Json::Exception.
  bool FetchDownloadInfo(bool with_aac, Json::Value& pack_info) const;

  /// Whether the downloaded file has the digest that `pack_info` names; false when it names none.
  bool VerifyChecksum(const Json::Value& pack_info) const;

  /// The name of the pack with or without AAC, a member of the update server's reply.
  std::string GetDownloadPackName(bool with_aac) const;

  /// Makes the download directory and downloads the package into it.
  bool DoDownload(const std::string& link, std::function<void(long, long)>& progress) const;

  /// Moves an installed pack aside and puts the downloaded one in place, the plugins told of both. `version` and `name`
  /// are the new pack's; `step` is told each step as it begins.
  bool DoInstall(const std::string& version, const std::string& name, std::function<void(InstallStep)>& step) const;

  /// Puts the downloaded pack in place and removes the download directory. No plugin is told.
  bool DoInstallStep(std::function<void(InstallStep)>& step) const;

  /// Moves the installed pack aside. No plugin is told.
  bool DoUninstallStep(std::function<void(InstallStep)>& step) const;

  /// Runs `action` between the "pre" and the "post" notification of the plugins. A notification that fails does not
  /// stop it; without success of the action there is no "post". An event that is none throws std::out_of_range.
  bool NotifyStep(NotifyPluginEvent event, std::function<bool()> action, const std::string& name,
                  const std::string& version, NotifyPluginStatus status) const;

 private:
  /// Fetches the download information, downloads the pack and verifies it: what both downloading flows begin with.
  bool DownloadOffer(bool with_aac, Json::Value& pack_info, std::function<void(long, long)>& progress) const;

  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
  std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg_;
  std::shared_ptr<IKOSHelper> kos_helper_;
  std::shared_ptr<IPackStatusHelper> status_helper_;
  std::shared_ptr<IPackHandler> pack_handler_;
  std::shared_ptr<IPluginNotifier> plugin_notifier_;
};

}  // namespace orbamira::updater
