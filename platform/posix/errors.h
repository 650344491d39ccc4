#pragma once

#include <cerrno>
#include <string>

// Reports system calls that failed. Not installed.
namespace orbamira {

/// Throws std::system_error for `error`, with `what` in front of its text. An error of 0 counts as EIO: a standard
/// stream may fail without setting errno.
[[noreturn]] void ThrowErrno(const std::string& what, int error = errno);

}  // namespace orbamira
