#pragma once

#include <string>

// Not installed; all in the header, because the platform's library exports nothing of it and the updater's needs it.
namespace orbamira::wrapper {

/// The link without the user and the password in it, to be shown and logged; any other text as it is.
inline std::string ShownLink(const std::string& link) {
  const std::size_t colon = link.find(':');
  const bool has_scheme = colon != std::string::npos && link.find('/') == colon + 1;
  const std::size_t begin = has_scheme ? link.find_first_not_of('/', colon + 1) : 0;
  if (begin == std::string::npos) {
    return link;
  }
  const std::size_t at = link.substr(0, link.find_first_of("/?#", begin)).rfind('@');
  return at == std::string::npos || at < begin ? link : link.substr(0, begin) + link.substr(at + 1);
}

}  // namespace orbamira::wrapper
