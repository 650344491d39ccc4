#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/record/failure.h"

/// What a person is told when a command failed: the reason, found in what was said on the way, and its sentence.
namespace orbamira::packctl {

/// What was said while a command ran, in the order in which it came.
struct Said {
  std::vector<std::string> programs = {};  ///< by the programs that the library ran
  std::vector<std::string> log = {};       ///< by the library itself
  std::vector<std::string> problems = {};  ///< by packctl
};

/// Picks out of it why the command failed. The library's lines are part of its contract, so they can be relied on.
Failure ExplainFailure(const std::string& command, const Said& said);

/// The failure of a command that was refused a file because the user is not root; empty for a command that any user may
/// run.
std::optional<Failure> NeedsRoot(const std::string& command);

/// What a command worked on.
struct Work {
  std::string command = {};
  std::string version = {};  ///< of the pack that it was about; empty when not known
};

/// How a command that changes something ended, in one line: "Update to 1.1 failed: MESSAGE. 1.0 stays installed.
/// REMEDY". Of a reason that says it all, such as a server that cannot be reached, the line begins with the message.
std::string FailureSentence(const Work& work, const Failure& failure,
                            const std::optional<std::string>& installed_version);

/// The same of a command that changes nothing: "MESSAGE. REMEDY"
std::string FailureSentence(const Failure& failure);

}  // namespace orbamira::packctl
