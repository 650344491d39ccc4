#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira::wrapper {

/// SDK services: making directories. A test or another platform can stand in for them. The order of the operations is a
/// binary contract.
class ORBAMIRA_EXPORT IOrbaSDKWrapper {
 public:
  virtual ~IOrbaSDKWrapper() = default;

  /// Makes the directory and its missing parents, all with mode 0755 whatever the umask. A directory that exists, or a
  /// symbolic link to one, is success; its mode stays.
  ///
  /// Returns 0, or the negative errno of the step that failed: -ENOTDIR when something else stands in the way, -ENOENT
  /// for an empty path. Parents made before that stay. Safe to call from several threads at once.
  virtual int MakeDirectory(const std::string& path) = 0;
};

/// The SDK services of a Linux system. An object holds no state, so it may be shared and copied.
class ORBAMIRA_EXPORT OrbaSDKWrapper : public IOrbaSDKWrapper {
 public:
  int MakeDirectory(const std::string& path) override;
};

}  // namespace orbamira::wrapper
