#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orbazelo {

/// What an identity token (a JSON Web Token) says. Its signature is not looked at: the token comes straight from the
/// provider over a connection that proves who that is.
struct IdToken {
  std::string issuer;                 ///< empty when missing
  std::string subject;                ///< empty when missing
  std::vector<std::string> audience;  ///< empty when missing
  std::int64_t expires = 0;           ///< seconds since 1970; 0 when missing, so the token counts as expired

  [[nodiscard]] bool IsFor(const std::string& client) const;
};

/// Reads a token; empty when the text is not a well-formed one.
std::optional<IdToken> ParseIdToken(const std::string& text);

}  // namespace orbazelo
