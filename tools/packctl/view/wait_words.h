#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "tools/packctl/policy/decision.h"
#include "tools/packctl/record/failure.h"

/// What a person is told of a pack that is not installed yet.
namespace orbamira::packctl {

/// Why the pack of this version waits, and what leads on: "1.1 waits for its window of time, until 02:00".
Failure ExplainWait(const std::string& version, const Wait& wait);

/// The reason alone: "a program uses the installed pack, until 2026-12-24 00:00:00 CET at the latest"
std::string WaitWords(const Wait& wait);

/// "updates are held until 2026-12-24 00:00:00 CET"
std::string HoldWords(const Hold& hold);

/// As answers have them: {"code", "until"} and {"until"}, in seconds since the epoch, null without an end; null where
/// nothing waits or is held.
Json::Value WaitJson(const std::optional<Wait>& wait);
Json::Value HoldJson(const std::optional<Hold>& hold);

}  // namespace orbamira::packctl
