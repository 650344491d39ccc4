#pragma once

#include <string>

namespace orbamira::fuzz {

/// The content as gzip, in blocks that are not compressed.
std::string StoredGzip(const std::string& content);

}  // namespace orbamira::fuzz
