#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "tools/packctl/cli/command.h"
#include "tools/packctl/cli/command_line.h"

// What packctl and the program of the account commands do alike.
namespace orbamira::packctl {

/// A program's main(): understands the command line and leaves an invocation to `answer`; returns the exit status.
int Main(int argc, char** argv, const std::function<int(const Invocation&)>& answer);

/// What a program does for a command of that name.
struct Function {
  std::string_view command;
  Outcome (*run)(Context&);
};

/// Runs the command's function. What it throws becomes an outcome, as does that there is none.
Outcome Attempt(const Command& command, Context& context, std::span<const Function> functions);

/// The outcome of a command that did not come to an answer of its own.
Outcome Refused(ExitStatus exit, const Command& command, const char* result, const std::string& problem);

/// Has the invocation run and gives its answer to whoever called; returns the exit status.
int Answer(const Invocation& invocation, Outcome (*run)(const Command&, Context&));

}  // namespace orbamira::packctl
