#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "tools/orba-archive/layer.h"

namespace orbamira::tools {

/// The bytes of a tar archive from first to last, decompressed if necessary.
class ByteSource {
 public:
  virtual ~ByteSource() = default;

  /// The next bytes, valid until the next call; none at the end. Throws std::system_error for a failed read and
  /// std::runtime_error for damaged data.
  virtual std::span<const uint8_t> Next() = 0;
};

/// Reads the open file from its start: as it is for a package, as gzip for a payload. Does not use or move the file's
/// own position, so several sources can read one file.
std::unique_ptr<ByteSource> OpenByteSource(int fd, Layer layer);

}  // namespace orbamira::tools
