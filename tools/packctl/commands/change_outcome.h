#pragma once

#include <optional>
#include <string>

#include "tools/packctl/cli/command.h"

/// How changing commands end: the outcomes that several of them share. `noun` names the work in a sentence: "the
/// download failed".
namespace orbamira::packctl {

/// An outcome with the status as it is recorded now.
Outcome EndOfChange(ExitStatus exit, const char* result);

/// The work failed.
Outcome FailedChange(const char* noun);

/// The work failed after it had begun: puts in order what it left, and says where that leaves the machine.
Outcome RecoveredChange(const Context& context, const char* noun);

/// The recorded status forbids the work.
Outcome ForbiddenChange(const char* noun, updater::PackStatus status);

/// What to say of the status after work that succeeded: nothing, or that an interrupted program may have left it. Only
/// the user knows whether another program that uses the library is at work: packctl holds no lock against those.
std::vector<std::string> DoubtsAbout(const std::optional<updater::PackStatus>& status);

}  // namespace orbamira::packctl
