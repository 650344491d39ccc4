#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira {

/// Whether `candidate` is a newer version than `current`: a strict weak order over all texts, so it is never true both
/// ways and never for equal versions.
///
/// Both are split at '.', '-', '_' and '+' and compared part by part. Parts of digits compare as numbers of any length,
/// others as text, and a number is older than a text. A missing or empty part counts as 0, so "1" equals "1.0".
ORBAMIRA_EXPORT bool IsNewVersion(const std::string& current, const std::string& candidate);

}  // namespace orbamira
