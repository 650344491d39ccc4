#pragma once

#include <json/value.h>

#include <optional>
#include <span>

#include "tools/packctl/cli/command.h"

/// The command line: what it may hold, and what it asks for.
namespace orbamira::packctl {

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

/// Understands the command line, which may ask for one of the commands. Help and version that were asked for are
/// printed, and what is wrong with it is told on the standard error.
ParsedLine ParseCommandLine(int argc, const char* const* argv, std::span<const Command> commands);

/// The commands and options as packctl itself takes them, for whoever writes its man page and completions:
///
///     {"name", "summary", "notes", "exit_statuses": [TERM...], "environment": [TERM...], "examples": [TERM...],
///     "options": [OPTION...], "groups": {"account": "..."},
///      "commands": [{"name", "summary", "details", "options": [OPTION...], "argument": "COMMAND"}...]}
///
/// where TERM is {"term": "2", "meaning": "nothing to do"}, and OPTION is {"names": ["--limit"...], "help": "...",
/// "value": "N"}, with null for the value of a flag. Only "help" has an argument. The name of a command that belongs to
/// a group is the group's and its own, with a blank between; groups are told with a summary.
Json::Value DescribeCommandLine(std::span<const Command> commands);

/// What single commands take, for Command::add_options.
void AddWatchOption(CLI::App& parser, Options& options);
void AddCancelOption(CLI::App& parser, Options& options);
void AddInstallOptions(CLI::App& parser, Options& options);
void AddRemoveOptions(CLI::App& parser, Options& options);
void AddDownloadOptions(CLI::App& parser, Options& options);
void AddHoldOptions(CLI::App& parser, Options& options);
void AddRollbackOptions(CLI::App& parser, Options& options);
void AddUpdateOptions(CLI::App& parser, Options& options);
void AddHistoryOptions(CLI::App& parser, Options& options);
void AddMetricsOptions(CLI::App& parser, Options& options);
void AddWebOptions(CLI::App& parser, Options& options);
void AddSignInOptions(CLI::App& parser, Options& options);

}  // namespace orbamira::packctl
