#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// What may stand in the settings of how the updater reaches the network: for those who use them, and for the doctor.
// Not installed; all in the header, because the platform's library does not export it.
namespace orbamira {

inline constexpr const char* kProxySetting = "proxy";
inline constexpr const char* kCaFileSetting = "ca_file";
inline constexpr const char* kDownloadRateSetting = "download_rate";

/// What the value must be, continuing "it is not ".
inline constexpr const char* kProxyForm = "the address of a proxy with its port, such as http://proxy.example.com:3128";
inline constexpr const char* kCaFileForm = "the whole path of a file of certificates (PEM)";
inline constexpr const char* kDownloadRateForm = "a whole number of bytes per second, 1024 or more";

/// The number, if the whole text is one from `least` to `most`.
inline std::optional<std::int64_t> ParseWholeNumber(std::string_view text, std::int64_t least, std::int64_t most) {
  std::int64_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool is_whole = error == std::errc() && stop == text.data() + text.size();
  return is_whole && number >= least && number <= most ? std::optional(number) : std::nullopt;
}

/// Whether the text is a host's name or address, IPv6 in brackets, and a port.
inline bool IsHostAndPort(std::string_view text) {
  constexpr std::int64_t kLastPort = 65535;
  constexpr std::string_view kSigns = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || !ParseWholeNumber(text.substr(colon + 1), 1, kLastPort)) {
    return false;
  }
  const std::string_view host = text.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    in6_addr address{};
    return inet_pton(AF_INET6, std::string(host.substr(1, host.size() - 2)).c_str(), &address) == 1;
  }
  return !host.empty() && host.find_first_not_of(kSigns) == std::string_view::npos;
}

/// Whether the text is SCHEME://[USER[:PASSWORD]@]HOST:PORT with a scheme of proxies. It is narrow, because libcurl
/// shows an address that it cannot take apart, password and all.
inline bool IsProxyAddress(const std::string& text) {
  constexpr std::array<std::string_view, 4> kSchemes = {"http://", "https://", "socks5://", "socks5h://"};
  const auto* const scheme =
      std::find_if(kSchemes.begin(), kSchemes.end(), [&](std::string_view each) { return text.starts_with(each); });
  if (scheme == kSchemes.end()) {
    return false;
  }
  std::string_view rest = std::string_view(text).substr(scheme->size());
  rest.remove_suffix(rest.ends_with('/') ? 1 : 0);
  const std::size_t at = rest.find('@');
  const std::string_view user = rest.substr(0, at == std::string_view::npos ? 0 : at);
  const bool is_plain = std::all_of(user.begin(), user.end(), [](char c) {
    return c > ' ' && c <= '~' && std::string_view("/?#[]\\\"'").find(c) == std::string_view::npos;
  });
  return is_plain && IsHostAndPort(at == std::string_view::npos ? rest : rest.substr(at + 1));
}

/// Whether the text is the whole path of a file.
inline bool IsCaFile(const std::string& text) { return text.starts_with('/') && !text.ends_with('/'); }

/// The bytes per second; empty for any other text.
inline std::optional<std::int64_t> ParseDownloadRate(const std::string& text) {
  constexpr std::int64_t kLeast = 1024;
  return ParseWholeNumber(text, kLeast, INT64_MAX);
}

}  // namespace orbamira
