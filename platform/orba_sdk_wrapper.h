#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira::wrapper {

/// SDK services: making directories. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT IOrbaSDKWrapper {
 public:
  virtual ~IOrbaSDKWrapper() = default;

  /// Makes the directory and its missing parents, all with mode 0755 whatever the umask. An existing directory, also
  /// through a symbolic link, is success. Returns 0, or the negative errno of what failed. May be called from several
  /// threads at once.
  virtual int MakeDirectory(const std::string& path) = 0;
};

/// The SDK services of a Linux system. Holds no state.
class ORBAMIRA_EXPORT OrbaSDKWrapper : public IOrbaSDKWrapper {
 public:
  int MakeDirectory(const std::string& path) override;
};

}  // namespace orbamira::wrapper
