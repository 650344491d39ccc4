#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/record/history.h"

/// What a person is told when a change failed.
namespace orbamira::packctl {

/// Why a change failed and what to do about it, for a person.
struct FailureWords {
  std::string cause;   ///< continues "Update failed: "; no full stop at its end
  std::string remedy;  ///< whole sentences
};

/// Picks the cause out of what was said while `command` ran: `programs` by the programs that the library ran, `log` by
/// the library itself, `problems` by packctl; the lines of each in the order in which they came.
FailureWords ExplainFailure(const std::string& command, const std::vector<std::string>& programs,
                            const std::vector<std::string>& log, const std::vector<std::string>& problems);

/// All of it in one line: "Update failed: CAUSE. Version 1.0 stays installed. REMEDY"
std::string FailureSentence(const std::string& command, const FailureWords& words,
                            const std::optional<PackIdentity>& installed);

}  // namespace orbamira::packctl
