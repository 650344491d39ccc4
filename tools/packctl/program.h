#pragma once

#include "tools/packctl/command.h"
#include "tools/packctl/command_line.h"

// What packctl and the program of the account commands do alike.
namespace orbamira::packctl {

/// To be called before anything is opened.
void OpenStandardDescriptors();

/// The outcome of a command that did not come to an answer of its own.
Outcome Refused(ExitStatus exit, const Command& command, const char* result, const std::string& problem);

/// Has the invocation run and gives its answer to whoever called; returns the exit status.
int Answer(const Invocation& invocation, Outcome (*run)(const Command&, Context&));

}  // namespace orbamira::packctl
