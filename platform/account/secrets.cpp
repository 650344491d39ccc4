#include "platform/account/secrets.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace orbamira {

std::string ToBase64(const std::string& bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int size =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(size));
  return text;
}

std::string ToBase64Url(const std::string& bytes) {
  std::string text = ToBase64(bytes);
  std::replace(text.begin(), text.end(), '+', '-');
  std::replace(text.begin(), text.end(), '/', '_');
  std::erase(text, '=');
  return text;
}

std::string Digest(const std::string& text, const char* hash) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  std::size_t size = 0;
  if (EVP_Q_digest(nullptr, hash, nullptr, text.data(), text.size(), reinterpret_cast<unsigned char*>(digest.data()),
                   &size) != 1) {
    throw std::runtime_error(std::string("OpenSSL has no ") + hash);
  }
  digest.resize(size);
  return digest;
}

std::string RandomText() {
  std::array<unsigned char, 32> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("OpenSSL has no random bytes");
  }
  return ToBase64Url({bytes.begin(), bytes.end()});
}

}  // namespace orbamira
