#pragma once

#include <span>

#include "tools/packctl/cli/command.h"

/// The road that every command takes, in packctl and in orba-account: command line, command, answer, exit status.
namespace orbamira::packctl {

/// A program's main() with these commands; returns the exit status.
///
/// A command that excludes others runs under the update lock. One that changed something, or failed to, is told of in
/// the history. What a command throws becomes an answer. A command without a function is run by the account program,
/// which takes this one's place.
int Main(int argc, char** argv, std::span<const Command> commands);

}  // namespace orbamira::packctl
