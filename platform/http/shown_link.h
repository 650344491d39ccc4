#pragma once

#include <algorithm>
#include <string>

// Not installed; all in the header, because the platform's library exports nothing of it and the updater's needs it.
namespace orbamira {

/// The link without the user and the password in it, to be shown and logged; any other text as it is. Where no port
/// stands behind the first colon, it may be a password with a letter that ends the host: all up to the last '@' goes.
inline std::string ShownLink(const std::string& link) {
  const std::size_t colon = link.find(':');
  const bool has_scheme = colon != std::string::npos && link.find('/') == colon + 1;
  const std::size_t begin = std::min(link.find_first_not_of('/', has_scheme ? colon + 1 : 0), link.size());
  const std::string rest = link.substr(begin);
  const std::string host = rest.substr(0, rest.find_first_of("/?#"));
  const std::size_t port = host.find(':') + 1;  // npos + 1 is 0
  const bool has_port = port == 0 || host.find_first_not_of("0123456789", port) == std::string::npos;
  const std::size_t at = has_port ? host.rfind('@') : rest.rfind('@');
  return link.substr(0, begin) + rest.substr(at + 1);
}

}  // namespace orbamira
