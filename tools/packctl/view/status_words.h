#pragma once

#include <string>

#include "updater/enumerations.h"

/// What statuses and steps are called in sentences.
namespace orbamira::packctl {

/// What the status means, as a clause that a sentence can end with.
const char* StatusMeaning(updater::PackStatus status);

/// The commands that the status permits, as a list for a sentence: "check, update".
std::string PermittedCommands(updater::PackStatus status);

/// The command that leads on from the status: "update".
const char* NextCommand(updater::PackStatus status);

/// What there is to say of a status of work under way that nobody is at, as a clause.
constexpr const char* kInterruptedWords = "an update was interrupted";

/// What happens in the install step of this text, as a clause; empty for the empty step.
const char* StepWords(const std::string& step);

}  // namespace orbamira::packctl
