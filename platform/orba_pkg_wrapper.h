#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira::wrapper {

/// Package services: whether a downloaded file is the one that was offered. The order of the operations is a binary
/// contract.
class ORBAMIRA_EXPORT IOrbaPkgWrapper {
 public:
  virtual ~IOrbaPkgWrapper() = default;

  /// Whether the digest of the file equals `checksum`, a hexadecimal text in either case: SHA-256 for 64 digits,
  /// SHA-512 for 128. False for any other text and for a file that is missing or cannot be read. Reads the file in
  /// pieces, in constant memory. May be called from several threads at once.
  virtual bool CheckFileChecksum(const std::string& file_path, const std::string& checksum) = 0;
};

/// The package services of a Linux system. Holds no state.
class ORBAMIRA_EXPORT OrbaPkgWrapper : public IOrbaPkgWrapper {
 public:
  bool CheckFileChecksum(const std::string& file_path, const std::string& checksum) override;
};

}  // namespace orbamira::wrapper
