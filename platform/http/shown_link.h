#pragma once

#include <algorithm>
#include <string>

// Keeps passwords out of logs. Not installed; all in the header, because the platform's library does not export it and
// the updater's needs it too.
namespace orbamira {

/// The link without user and password, fit to be shown and logged. Any other text stays as it is. When something else
/// than a port follows the host's colon, it may be a password with a '/', '?' or '#' in it: everything up to the last
/// '@' then goes.
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
