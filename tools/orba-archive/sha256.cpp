#include "tools/orba-archive/sha256.h"

#include <array>
#include <stdexcept>
#include <string_view>

namespace orbamira::tools {
namespace {

void Check(bool done) {
  if (!done) {
    throw std::runtime_error("cannot compute a digest");
  }
}

}  // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  Check(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Sha256::Add(std::span<const uint8_t> bytes) {
  Check(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1);
}

std::string Sha256::Finish() {
  std::array<uint8_t, kSize> digest{};
  Check(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1);
  std::string text;
  for (const uint8_t byte : digest) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 15U];
  }
  return text;
}

}  // namespace orbamira::tools
