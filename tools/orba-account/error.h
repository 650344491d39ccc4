#pragma once

#include <stdexcept>

namespace orbamira::packctl {

/// The sign-in failed. what() gives the reason and never contains a token, a code or a verifier.
class SignInError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace orbamira::packctl
