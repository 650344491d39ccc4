#pragma once

#include <ctime>
#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_zelo_wrapper.h"

namespace orbamira::updater {

/// The facts about the appliance that an update needs: versions, settings, what files exist. Tests give PackManager a
/// helper of their own. Nothing is cached: every call asks the system again. A missing value is an empty text. The
/// order of the operations is a binary contract.
class ORBAMIRA_EXPORT IKOSHelper {
 public:
  virtual ~IKOSHelper() = default;

  /// Sets the mode of the file or directory. False, with a line in the log, when the system refuses.
  virtual bool Chmod(const std::string& path, unsigned int mode) const = 0;

  /// Whether the path is a directory or a symbolic link. A link counts even if it leads nowhere.
  virtual bool DirExist(const std::string& path) const = 0;

  /// Whether a file exists at the path; a directory is not one. Symbolic links are followed.
  virtual bool FileExist(const std::string& path) const = 0;

  /// When the file was modified, in seconds since 1970; 0 when it is missing. Symbolic links are followed.
  virtual time_t FileMtime(const std::string& path) const = 0;

  /// The build number of the system's version.
  virtual std::string GetBuildNumber() const = 0;

  /// The major number of the system's version.
  virtual std::string GetMajorVersion() const = 0;

  /// The minor number of the system's version.
  virtual std::string GetMinorVersion() const = 0;

  /// The package's name in the package information file `path`.
  virtual std::string GetPackageNameFromPath(const std::string& path) const = 0;

  /// The update server's address from the machine's settings, or else from the maker's. It is not checked.
  virtual std::string GetPackUpdateServerUrl() const = 0;

  /// The system's time zone name.
  virtual std::string GetTimezone() const = 0;

  /// The text by which the update server tells this machine from others.
  virtual std::string GetUnique() const = 0;

  /// The id of the user who is signed in on the appliance.
  virtual std::string GetUserId() const = 0;

  /// The system's version as "MAJOR.MINOR-BUILD". A missing part is empty and its separator stays: "1.-42".
  virtual std::string GetVersion() const = 0;

  /// The package's version in the package information file `path`.
  virtual std::string GetVersionFromPath(const std::string& path) const = 0;
};

/// The facts of the running system, from the platform's core and account services. Safe to use from several threads at
/// once if the services are; the platform's own are.
class ORBAMIRA_EXPORT KOSHelper : public IKOSHelper {
 public:
  /// Makes a helper that asks the platform's own services; never empty.
  static std::unique_ptr<IKOSHelper> Create();

  /// Makes a helper that asks the given services.
  static std::unique_ptr<IKOSHelper> CreateForTest(std::shared_ptr<wrapper::IOrbaCoreWrapper> core,
                                                   std::shared_ptr<wrapper::IOrbaZeloWrapper> zelo);

  /// Makes a helper that asks the given services, which it keeps for its life. Neither may be null.
  KOSHelper(std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaZeloWrapper> zelo);

  bool Chmod(const std::string& path, unsigned int mode) const override;
  bool DirExist(const std::string& path) const override;
  bool FileExist(const std::string& path) const override;
  time_t FileMtime(const std::string& path) const override;
  std::string GetBuildNumber() const override;
  std::string GetMajorVersion() const override;
  std::string GetMinorVersion() const override;
  std::string GetPackageNameFromPath(const std::string& path) const override;
  std::string GetPackUpdateServerUrl() const override;
  std::string GetTimezone() const override;
  std::string GetUnique() const override;
  std::string GetUserId() const override;
  std::string GetVersion() const override;
  std::string GetVersionFromPath(const std::string& path) const override;

 private:
  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
  std::shared_ptr<wrapper::IOrbaZeloWrapper> zelo_;
};

}  // namespace orbamira::updater
