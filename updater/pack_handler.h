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

/// The file work of an update: which version is installed, where the package is stored, download, extraction,
/// installation. Nothing is cached: every operation looks at the disk. Operations block until their work is done. False
/// means failure, with the reason in the log. Do not use one object from two threads at once, and take an UpdateLock
/// around a change: two at once disturb each other. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT IPackHandler {
 public:
  virtual ~IPackHandler() = default;

  /// Whether the handler's own download information offers a newer pack; as below.
  virtual bool CheckNewVersion() const = 0;

  /// Whether `info` offers a newer pack than the installed one. When the installed version is not known, any offer is
  /// newer; otherwise an offer without a version never is. Throws as GetDownloadVersion().
  virtual bool CheckNewVersion(const Json::Value& info) const = 0;

  /// The version of the pack on offer; empty when missing. This and the next two throw Json::LogicError when `info` is
  /// no object or the member is an array or an object.
  virtual std::string GetDownloadVersion(const Json::Value& info) const = 0;

  /// The address of the package; empty when missing.
  virtual std::string GetDownloadLink(const Json::Value& info) const = 0;

  /// The digest of the package, hexadecimal; empty when missing.
  virtual std::string GetDownloadChecksum(const Json::Value& info) const = 0;

  /// The file into which the package is downloaded.
  virtual std::string GetDownloadPath() const = 0;

  /// Downloads `link` to the file `path` and replaces what is there. After a failed download the file may hold a part.
  virtual bool Download(const std::string& link, const std::string& path) = 0;

  /// As above, but resumes a transfer that breaks off, and calls `progress` with the bytes so far and in total.
  virtual bool DownloadWithProgress(const std::string& link, const std::string& path,
                                    std::function<void(long, long)>& progress) = 0;

  /// Unpacks the package file `path` and puts the pack in place of the one that Uninstall() moved aside. If that last
  /// step fails, the old pack comes back. Fails at once while another process installs.
  virtual bool Install(const std::string& path) = 0;

  /// Moves the installed pack aside, to the backup.
  virtual bool Uninstall() = 0;

  /// Makes the download directory and its missing parents; an existing one is success.
  virtual bool CreateDownloadDirectory() const = 0;

  /// Removes the download directory with everything in it.
  virtual bool RemoveDownloadDirectory() const = 0;
};

/// The handler that works with the platform's services and programs.
class ORBAMIRA_EXPORT PackHandler : public IPackHandler {
 public:
  /// Makes a handler that works with the platform's own services; never empty.
  static std::unique_ptr<IPackHandler> Create();

  /// Makes a handler that works with the given services. `download_info` is for the operations that take none.
  static std::unique_ptr<IPackHandler> CreateForTest(std::shared_ptr<wrapper::ICprSession> session,
                                                     std::shared_ptr<IKOSHelper> kos_helper,
                                                     std::shared_ptr<wrapper::IOrbaCoreWrapper> core,
                                                     std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk,
                                                     const Json::Value& download_info);

  /// Makes a handler that works with the given services and has no download information of its own.
  PackHandler(std::shared_ptr<wrapper::ICprSession> session, std::shared_ptr<IKOSHelper> kos_helper,
              std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk);

  /// As above, with download information of its own.
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

  /// The version in it; empty when it has none.
  std::string GetDownloadVersion() const;

  /// The pack's name in it; empty when it has none.
  std::string GetDownloadPackName() const;

  /// The path of the installed pack's information file, whether or not there is one.
  std::string GetInfoPath() const;

  /// The version in a package information file; empty when missing.
  std::string GetVersionFromInfo(const std::string& info_path) const;

  /// The package's name in a package information file; empty when missing.
  std::string GetPackageNameFromInfo(const std::string& info_path) const;

  /// Makes the temporary directory, into which a new pack is unpacked.
  bool CreateTempPackDirectory() const;

  /// Removes it with everything in it.
  bool RemoveTempPackDirectory() const;

  /// Unpacks the package and its payload into `target_dir`. Any exit status other than 0 is a failure.
  bool ExtractOpk(const std::string& opk_path, const std::string& target_dir) const;

  /// Unpacks the package into the download directory and its payload into the temporary directory. Only a program that
  /// could not be run, or that a signal ended, is a failure.
  bool ExtractOpk(const std::string& opk_path) const;

 protected:
  /// Does what DownloadWithProgress() does, with `download`; a null one is a failure.
  bool DownloadThrough(const std::shared_ptr<wrapper::DownloadWrapper>& download, const std::string& link,
                       const std::string& path, std::function<void(long, long)>& progress) const;

 private:
  /// Unpacks the package and puts it where the old pack was. Throws the install exception when that fails.
  void ReplacePack(const std::string& opk_path) const;

  std::shared_ptr<wrapper::ICprSession> session_;
  std::shared_ptr<IKOSHelper> kos_helper_;
  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
  std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk_;
  Json::Value download_info_;
};

}  // namespace orbamira::updater
