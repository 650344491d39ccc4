// The identity token of a sign-in and the provider's keys, both from the network: whatever they hold, the token is
// refused with a reason, or it is what was expected. The input's first line is the key set, the rest the token.

#include "platform/account/id_token.h"

#include <string>

#include "platform/account/token_check.h"
#include "platform/orbazelo.h"
#include "tests/fuzz/fuzzing.h"

namespace {

using orbamira::fuzz::Require;

const orbamira::TokenExpectation& Expected() {
  static const orbamira::TokenExpectation expected{.issuer = "https://i",
                                                   .client_id = "client",
                                                   .nonce = "nonce",
                                                   .access_token = "access",
                                                   .now = 1'800'000'000,
                                                   .provider_time = 1'800'003'600};
  return expected;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::string text = orbamira::fuzz::Text(data, size);
  const std::string keys = orbamira::fuzz::TakeLine(text);
  int asked = 0;
  try {
    const orbamira::IdToken token = orbamira::CheckIdToken(text, Expected(), [&] {
      ++asked;
      return keys;
    });
    const auto parts = orbamira::ParseJsonWebToken(text);
    Require(parts && orbamira::IsSignatureAlgorithm(parts->header["alg"].asString()),
            "only a token signed with a public key is taken");
    Require(asked > 0, "no token is taken without the provider's keys");
    Require(token.issuer == Expected().issuer && token.IsFor(Expected().client_id) &&
                parts->claims["nonce"] == Expected().nonce && token.expires > Expected().now && !token.subject.empty(),
            "only a token that is ours is taken");
  } catch (const orbazelo::ZeloException& error) {
    Require(!std::string(error.what()).empty(), "a refusal has a reason");
  }
  Require(asked <= 2, "the keys are asked for once more at most");
  return 0;
}
