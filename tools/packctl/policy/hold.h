#pragma once

#include <optional>
#include <string>

#include "tools/packctl/policy/decision.h"

/// The owner's word that nothing is installed: the file hold.json beside the history.
namespace orbamira::packctl {

/// The hold that is in force at `now`; empty without one. A file that says something else than a hold holds without
/// an end: whoever made it wanted no update.
std::optional<Hold> ReadHold(std::time_t now);

/// Whether there is such a file that says something else than a hold.
bool IsHoldDamaged();

/// Keeps the hold, whole and synced. Throws std::system_error.
void KeepHold(const Hold& hold);

/// Ends it, durably. Throws std::system_error.
void EndHold();

/// Reads "2026-12-24" (the beginning of that day) or "2026-12-24 18:30", by this machine's time zone. Empty for any
/// other text.
std::optional<std::time_t> ParseDate(const std::string& text);

}  // namespace orbamira::packctl
