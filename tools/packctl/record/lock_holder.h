#pragma once

#include <optional>
#include <string>

/// Who is at work.
namespace orbamira::packctl {

/// The process that holds the lock, asked of the kernel, so that nobody is kept from it meanwhile: its id, or nothing
/// when none does or when that cannot be told.
std::optional<int> HolderOf(const std::string& lock_path);

}  // namespace orbamira::packctl
