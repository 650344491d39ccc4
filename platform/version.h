#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira {

/// Whether `candidate` is a newer version than `current`. Any text is a version, and the order is strict: never true
/// both ways, never true for equal versions.
///
/// Both texts are split at '.', '-', '_' and '+' and compared part by part. Parts of digits compare as numbers of any
/// length, other parts as text; a number is older than a text. A missing or empty part counts as 0, so "1" equals
/// "1.0". Safe to call from several threads at once.
ORBAMIRA_EXPORT bool IsNewVersion(const std::string& current, const std::string& candidate);

}  // namespace orbamira
