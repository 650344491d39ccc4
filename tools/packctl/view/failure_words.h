#pragma once

#include <string>
#include <vector>

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

}  // namespace orbamira::packctl
