#include "platform/orba_pkg_wrapper.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/posix/unique_fd.h"

namespace orbamira::wrapper {
namespace {

constexpr std::size_t kBufferSize = 64UL << 10U;

using Digest = std::vector<unsigned char>;

const EVP_MD* AlgorithmOf(const std::string& checksum) {
  switch (checksum.size()) {
    case 64:
      return EVP_sha256();
    case 128:
      return EVP_sha512();
    default:
      return nullptr;
  }
}

// Only a regular file: a pipe or a terminal may never end.
UniqueFd OpenRegularFile(const std::string& path) {
  UniqueFd fd = OpenFile(path, O_RDONLY);
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return {};
  }
  return fd;
}

std::optional<Digest> DigestOf(int fd, const EVP_MD* algorithm) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  if (context == nullptr || EVP_DigestInit_ex(context.get(), algorithm, nullptr) != 1) {
    return std::nullopt;
  }
  posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  std::vector<char> buffer(kBufferSize);
  ssize_t count = 0;
  while ((count = ReadSome(fd, buffer.data(), buffer.size())) > 0) {
    if (EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(count)) != 1) {
      return std::nullopt;
    }
  }
  Digest digest(static_cast<std::size_t>(EVP_MD_get_size(algorithm)));
  if (count < 0 || EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) != 1) {
    return std::nullopt;
  }
  return digest;
}

bool IsHexOf(const std::string& text, const Digest& digest) {
  constexpr std::string_view kLower = "0123456789abcdef";
  constexpr std::string_view kUpper = "0123456789ABCDEF";
  const auto is_digit = [&](char digit, unsigned value) { return digit == kLower[value] || digit == kUpper[value]; };
  for (std::size_t i = 0; i < digest.size(); ++i) {
    if (!is_digit(text[2 * i], digest[i] >> 4U) || !is_digit(text[2 * i + 1], digest[i] & 0xFU)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool OrbaPkgWrapper::CheckFileChecksum(const std::string& file_path, const std::string& checksum) {
  const EVP_MD* algorithm = AlgorithmOf(checksum);
  if (algorithm == nullptr) {
    return false;
  }
  const UniqueFd file = OpenRegularFile(file_path);
  if (!file.valid()) {
    return false;
  }
  const std::optional<Digest> digest = DigestOf(file.get(), algorithm);
  return digest.has_value() && IsHexOf(checksum, *digest);
}

}  // namespace orbamira::wrapper
