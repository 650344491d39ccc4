#pragma once

#include <json/value.h>

#include <optional>

#include "tools/packctl/cli/command.h"

namespace orbamira::packctl {

/// What a command does to the machine, and so what it may run beside.
enum class Effect {
  kNone,        ///< it runs at any time
  kExclusive,   ///< it changes nothing that lasts, but runs beside no changing command
  kChange,      ///< it changes something and is told of in the history
  kOwnProgram,  ///< it runs at any time, in a program of its own
};

/// A command of packctl, and what its help, its man page and its completions tell of it.
struct Command {
  const char* name;  ///< one word, or two for a command of a group
  Effect effect;
  const char* summary;
  const char* details;
};

/// A command as it was asked for.
struct Invocation {
  const Command* command;
  Options options;
};

/// What the command line comes to: an invocation, or without one the end of packctl with `exit`.
struct ParsedLine {
  std::optional<Invocation> invocation = {};
  ExitStatus exit = kExitDone;
};

/// Understands the command line. Help and version that were asked for are printed, and what is wrong with it is told on
/// the standard error.
ParsedLine ParseCommandLine(int argc, const char* const* argv);

/// The commands and options as packctl itself takes them, for whoever writes its man page and completions:
///
///     {"name", "summary", "footer", "options": [OPTION...], "groups": {"account": "..."},
///      "commands": [{"name", "summary", "details", "options": [OPTION...]}...]}
///
/// where OPTION is {"names": ["--limit"...], "help": "...", "value": "N"}, with null for the value of a flag. The name
/// of a command that belongs to a group is the group's and its own, with a blank between; groups are told with a
/// summary.
Json::Value DescribeCommandLine();

}  // namespace orbamira::packctl
