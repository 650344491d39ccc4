#pragma once

#include <stdexcept>

namespace orbamira::packctl {

/// Why nobody was signed in; what() is a sentence that never holds a token, a code or a verifier.
class SignInError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace orbamira::packctl
