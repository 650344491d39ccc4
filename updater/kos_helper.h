#pragma once

#include <ctime>
#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_zelo_wrapper.h"

namespace orbamira::updater {

/// The facts about the host that an update needs: versions, settings, file tests. The order of the operations is a
/// binary contract. Nothing is cached: every call asks the system again. A value that is missing is an empty text.
class ORBAMIRA_EXPORT IKOSHelper {
 public:
  virtual ~IKOSHelper() = default;

  /// Sets the mode of the file or directory; false, with a line in the log, when the system refuses.
  virtual bool Chmod(const std::string& path, unsigned int mode) const = 0;

  /// Whether the path is a directory or a symbolic link. A link counts whatever it points to.
  virtual bool DirExist(const std::string& path) const = 0;

  /// Whether a file exists at the path, links followed.
  virtual bool FileExist(const std::string& path) const = 0;

  /// Modification time in seconds since the epoch, links followed; 0 when the file cannot be looked at.
  virtual time_t FileMtime(const std::string& path) const = 0;

  /// The build number of the system's version.
  virtual std::string GetBuildNumber() const = 0;

  /// The major number of the system's version.
  virtual std::string GetMajorVersion() const = 0;

  /// The minor number of the system's version.
  virtual std::string GetMinorVersion() const = 0;

  /// The package's name in the package information file `path`.
  virtual std::string GetPackageNameFromPath(const std::string& path) const = 0;

  /// The update server's address from the machine's settings, else from the maker's defaults. Not checked.
  virtual std::string GetPackUpdateServerUrl() const = 0;

  /// The system's time zone name.
  virtual std::string GetTimezone() const = 0;

  /// The system's unique value.
  virtual std::string GetUnique() const = 0;

  /// The id of the account user registered on the appliance.
  virtual std::string GetUserId() const = 0;

  /// The system's version as "MAJOR.MINOR-BUILD"; missing parts leave their separator.
  virtual std::string GetVersion() const = 0;

  /// The package's version in the package information file `path`.
  virtual std::string GetVersionFromPath(const std::string& path) const = 0;
};

/// The facts of the running system, through the platform's core and account services. Safe to use from several
/// threads at once.
class ORBAMIRA_EXPORT KOSHelper : public IKOSHelper {
 public:
  /// A helper over the platform's own services; never empty.
  static std::unique_ptr<IKOSHelper> Create();

  /// A helper over the given services.
  static std::unique_ptr<IKOSHelper> CreateForTest(std::shared_ptr<wrapper::IOrbaCoreWrapper> core,
                                                   std::shared_ptr<wrapper::IOrbaZeloWrapper> zelo);

  /// A helper over the given services, which it shares.
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
