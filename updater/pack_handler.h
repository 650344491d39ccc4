#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/cpr_session.h"
#include "platform/export.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_sdk_wrapper.h"
#include "updater/kos_helper.h"

namespace orbamira::wrapper {
class DownloadWrapper;
}

namespace orbamira::updater {

/// The hands of the update: where the package lies, which version is installed, download, extraction, installation.
/// Every operation starts from what the disk holds. Operations block until their work is done; false comes with the
/// reason in the log. The order of the operations is a binary contract. One object is not for use from two threads at
/// once, and two installs at once disturb each other: the caller excludes them.
class ORBAMIRA_EXPORT IPackHandler {
 public:
  virtual ~IPackHandler() = default;

  /// Whether the handler's own download information offers a newer pack.
  virtual bool CheckNewVersion() const = 0;

  /// Whether `info` offers a newer pack than the installed one. An unknown installed version counts as older than
  /// anything; an offer without a version is never newer.
  virtual bool CheckNewVersion(const Json::Value& info) const = 0;

  /// The version of the pack on offer; empty when missing. Throws Json::LogicError when `info` is no object or the
  /// member is no plain value, and so do the next two.
  virtual std::string GetDownloadVersion(const Json::Value& info) const = 0;

  /// The address of the package; empty when missing.
  virtual std::string GetDownloadLink(const Json::Value& info) const = 0;

  /// The digest of the package, hexadecimal; empty when missing.
  virtual std::string GetDownloadChecksum(const Json::Value& info) const = 0;

  /// The file that the package is downloaded to.
  virtual std::string GetDownloadPath() const = 0;

  /// Downloads `link` to the file `path`, replacing it. A failed download leaves the part that arrived.
  virtual bool Download(const std::string& link, const std::string& path) = 0;

  /// As above; calls `progress` with the bytes so far and in total while they arrive, and takes up a transfer that was
  /// cut.
  virtual bool DownloadWithProgress(const std::string& link, const std::string& path,
                                    std::function<void(long, long)>& progress) = 0;

  /// Unpacks the package file `path` and puts it in place of the pack that Uninstall() moved aside. When putting it in
  /// place fails, the old pack comes back. Fails at once while another host installs.
  virtual bool Install(const std::string& path) = 0;

  /// Moves the installed pack aside, to the backup.
  virtual bool Uninstall() = 0;

  /// Makes the download directory and its missing parents; an existing one is success.
  virtual bool CreateDownloadDirectory() const = 0;

  /// Removes the download directory with everything in it.
  virtual bool RemoveDownloadDirectory() const = 0;
};

/// The handler that works through the platform's services and its programs.
class ORBAMIRA_EXPORT PackHandler : public IPackHandler {
 public:
  /// A handler over the platform's own services.
  static std::unique_ptr<IPackHandler> Create();

  /// A handler over the given services, with download information of its own for the operations without arguments.
  static std::unique_ptr<IPackHandler> CreateForTest(std::shared_ptr<wrapper::ICprSession> session,
                                                     std::shared_ptr<IKOSHelper> kos_helper,
                                                     std::shared_ptr<wrapper::IOrbaCoreWrapper> core,
                                                     std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk,
                                                     const Json::Value& download_info);

  /// A handler over the given services, without download information of its own.
  PackHandler(std::shared_ptr<wrapper::ICprSession> session, std::shared_ptr<IKOSHelper> kos_helper,
              std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk);

  /// As above, with download information.
  PackHandler(std::shared_ptr<wrapper::ICprSession> session, std::shared_ptr<IKOSHelper> kos_helper,
              std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk,
              const Json::Value& download_info);

  bool CheckNewVersion() const override;
  bool CheckNewVersion(const Json::Value& info) const override;
  std::string GetDownloadVersion(const Json::Value& info) const override;
  std::string GetDownloadLink(const Json::Value& info) const override;
  std::string GetDownloadChecksum(const Json::Value& info) const override;
  std::string GetDownloadPath() const override;
  bool Download(const std::string& link, const std::string& path) override;
  bool DownloadWithProgress(const std::string& link, const std::string& path,
                            std::function<void(long, long)>& progress) override;
  bool Install(const std::string& path) override;
  bool Uninstall() override;
  bool CreateDownloadDirectory() const override;
  bool RemoveDownloadDirectory() const override;

  /// The package's address in the handler's own download information; empty when it has none.
  std::string GetDownloadLink() const;

  /// The version there; empty when it has none.
  std::string GetDownloadVersion() const;

  /// The pack's name there; empty when it has none.
  std::string GetDownloadPackName() const;

  /// The installed pack's information file, whether or not it exists.
  std::string GetInfoPath() const;

  /// The version in a package information file; empty when missing.
  std::string GetVersionFromInfo(const std::string& info_path) const;

  /// The package's name there; empty when missing.
  std::string GetPackageNameFromInfo(const std::string& info_path) const;

  /// Makes the directory that a new pack is unpacked into.
  bool CreateTempPackDirectory() const;

  /// Removes it with everything in it.
  bool RemoveTempPackDirectory() const;

  /// Unpacks the package and its payload into `target_dir`. Any exit status but 0 is a failure.
  bool ExtractOpk(const std::string& opk_path, const std::string& target_dir) const;

  /// Unpacks the package into the download directory and its payload into the temporary directory. Only a program that
  /// could not be run, or that a signal ended, is a failure.
  bool ExtractOpk(const std::string& opk_path) const;

 protected:
  /// What DownloadWithProgress() does, through `download`; a null one is a failure.
  bool DownloadThrough(const std::shared_ptr<wrapper::DownloadWrapper>& download, const std::string& link,
                       const std::string& path, std::function<void(long, long)>& progress) const;

 private:
  /// Unpacks the package and puts it where the old pack was; throws the install exception where that fails.
  void ReplacePack(const std::string& opk_path) const;

  std::shared_ptr<wrapper::ICprSession> session_;
  std::shared_ptr<IKOSHelper> kos_helper_;
  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
  std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk_;
  Json::Value download_info_;
};

}  // namespace orbamira::updater
