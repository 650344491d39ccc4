#include "tools/packctl/policy/share.h"

#include <array>
#include <cmath>
#include <string_view>

namespace orbamira::packctl {
namespace {

constexpr unsigned kByte = 8;

bool IsPlain(char character) {
  constexpr std::string_view kOthers = "-._~";
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || kOthers.find(character) != std::string_view::npos;
}

// As libcurl writes it into the query.
std::string PercentEncoded(const std::string& text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string encoded;
  for (const char character : text) {
    if (IsPlain(character)) {
      encoded += character;
      continue;
    }
    const auto byte = static_cast<unsigned char>(character);
    encoded += {'%', kDigits[byte / kDigits.size()], kDigits[byte % kDigits.size()]};
  }
  return encoded;
}

std::uint32_t LittleEndian(std::string_view bytes) {
  std::uint32_t number = 0;
  for (std::size_t place = bytes.size(); place > 0; --place) {
    number = number << kByte | static_cast<unsigned char>(bytes[place - 1]);
  }
  return number;
}

// MurmurHash2 by Austin Appleby, with the seed 0.
std::uint32_t Hash(std::string_view text) {
  constexpr std::uint32_t kMultiplier = 0x5bd1e995;
  constexpr unsigned kMix = 24;
  constexpr std::array<unsigned, 2> kLast = {13, 15};
  auto hash = static_cast<std::uint32_t>(text.size());
  for (; text.size() >= sizeof(hash); text.remove_prefix(sizeof(hash))) {
    std::uint32_t part = LittleEndian(text.substr(0, sizeof(hash))) * kMultiplier;
    part ^= part >> kMix;
    hash = (hash * kMultiplier) ^ (part * kMultiplier);
  }
  if (!text.empty()) {
    hash = (hash ^ LittleEndian(text)) * kMultiplier;
  }
  hash ^= hash >> kLast[0];
  hash *= kMultiplier;
  return hash ^ hash >> kLast[1];
}

}  // namespace

std::uint32_t ShareNumber(const std::string& unique, const std::string& version) {
  return Hash(PercentEncoded(unique) + ":" + version);
}

bool IsInShare(const std::string& unique, const std::string& version, double percent) {
  constexpr double kHundred = 100;
  constexpr std::uint64_t kWhole = 10'000;
  if (percent >= kHundred) {
    return true;
  }
  if (!(percent > 0)) {
    return false;
  }
  const auto hundredths = static_cast<std::uint64_t>(std::llround(percent * kHundred));
  return ShareNumber(unique, version) < hundredths * UINT32_MAX / kWhole;
}

}  // namespace orbamira::packctl
