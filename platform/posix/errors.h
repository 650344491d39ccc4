#pragma once

#include <cerrno>
#include <string>

// How a failed call to the system is reported. Not installed.
namespace orbamira {

/// Throws std::system_error with the text of `error`, headed by `what`. A call that failed without an errno, as a
/// standard stream's may, counts as EIO.
[[noreturn]] void ThrowErrno(const std::string& what, int error = errno);

}  // namespace orbamira
