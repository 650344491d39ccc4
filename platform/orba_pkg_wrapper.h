#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira::wrapper {

/// Package services: whether a downloaded file is the one that the server offered. A test or another platform can stand
/// in for them. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT IOrbaPkgWrapper {
 public:
  virtual ~IOrbaPkgWrapper() = default;

  /// Whether the file has the digest `checksum`: SHA-256 as 64 hexadecimal digits or SHA-512 as 128, in upper or lower
  /// case. False for any other text, and for a file that is missing, cannot be read or is not a regular file.
  ///
  /// Blocks while it reads the whole file. Needs the same memory whatever the file's size. Safe to call from several
  /// threads at once.
  virtual bool CheckFileChecksum(const std::string& file_path, const std::string& checksum) = 0;
};

/// The package services of a Linux system. An object holds no state, so it may be shared and copied.
class ORBAMIRA_EXPORT OrbaPkgWrapper : public IOrbaPkgWrapper {
 public:
  bool CheckFileChecksum(const std::string& file_path, const std::string& checksum) override;
};

}  // namespace orbamira::wrapper
