#pragma once

#include <optional>
#include <string>

#include "tools/packctl/host/update_objects.h"
#include "tools/packctl/record/failure.h"

/// How packctl installs a package from a file, in place of one from the update server.
namespace orbamira::packctl {

/// What the user asked for.
struct FileWishes {
  std::string file = {};     ///< the package, on a stick mostly
  bool trust = false;        ///< without a signature, too
  bool reinstall = false;    ///< also the version that is installed already
  bool allow_older = false;  ///< also an older version
};

/// The install of one package from a file. It takes the road of an update: the package is copied to where a download
/// lies, recorded as a download is, checked, and installed by the library. Only the pack that a check would ask for is
/// accepted, and no older version of it unless that is wished.
///
/// A package that is not installed leaves pack and plugins alone, and the record as it was if that still holds: only a
/// download that waited is lost.
class FileInstall {
 public:
  FileInstall(const UpdateObjects& objects, FileWishes wishes);

  /// Does it, as a flow of the library: false when that failed or was refused, with the reasons in the log. Once only.
  bool Run();

  /// The package's version; empty while it is not known.
  [[nodiscard]] const std::string& version() const { return version_; }

  /// Why the package was refused, if the log does not say it all.
  [[nodiscard]] const std::optional<Failure>& refusal() const { return refusal_; }

  /// Whether there was nothing to do, because the same version is installed.
  [[nodiscard]] bool is_installed_already() const { return is_installed_already_; }

 private:
  [[nodiscard]] bool MayBegin();
  [[nodiscard]] bool Fetch();
  [[nodiscard]] bool ReadIdentity();
  [[nodiscard]] bool IsWanted();
  void PutBack(updater::PackStatus before, const std::string& version) const;
  bool Refuse(FailureReason reason, const std::string& message, const std::string& remedy);

  const UpdateObjects& objects_;
  FileWishes wishes_;
  std::string name_;
  std::string version_;
  std::optional<Failure> refusal_;
  bool is_installed_already_ = false;
};

}  // namespace orbamira::packctl
