#pragma once

#include <archive_entry.h>

#include <cstdint>

namespace orbamira::tools {

/// Sets a member's modification time, in seconds since 1970; the nearest that the system's libarchive can hold.
void SetModificationTime(archive_entry* entry, std::int64_t seconds);

}  // namespace orbamira::tools
