#pragma once

#include <string>
#include <system_error>

namespace orbamira::test {

/// The C library's words for the number of an error, which a test compares with and never spells.
inline std::string ErrorText(int error) { return std::generic_category().message(error); }

}  // namespace orbamira::test
