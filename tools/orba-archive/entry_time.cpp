// Compiled with the size of a time that the system's libarchive was compiled with; see cmake/WideTypes.cmake.
#include "tools/orba-archive/entry_time.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace orbamira::tools {

void SetModificationTime(archive_entry* entry, std::int64_t seconds) {
  using Limits = std::numeric_limits<std::time_t>;
  const std::int64_t nearest = std::clamp<std::int64_t>(seconds, Limits::min(), Limits::max());
  archive_entry_set_mtime(entry, static_cast<std::time_t>(nearest), 0);
}

}  // namespace orbamira::tools
