#pragma once

#include <string>

#include "tools/packctl/policy/decision.h"
#include "tools/packctl/record/failure.h"

/// What a person is told of a pack that is not installed yet.
namespace orbamira::packctl {

/// Why the pack of this version waits, and what leads on: "1.1 waits for its window of time, until 02:00".
Failure ExplainWait(const std::string& version, const Wait& wait);

}  // namespace orbamira::packctl
