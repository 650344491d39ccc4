#pragma once

#include <optional>
#include <string>

// What our programs have in common when they start and when they print. Not installed.
namespace orbamira {

/// Opens /dev/null for each standard stream that is closed: the next file to be opened would get its number, and what
/// the program prints would go there. Throws std::system_error.
void OpenStandardStreams();

/// A reader of our output that went away, and a limit on the size of files, become errors to report instead of signals
/// that end the program.
void IgnoreOutputSignals();

/// Prints the whole standard output of a program. Returns the exit status: EXIT_FAILURE when it could not be printed.
int PrintAll(const std::string& text);

/// Answers the only argument "--help" with `usage` and "--version" with `version`, a line without its end. Returns the
/// exit status, or nothing for any other arguments.
std::optional<int> AnswerHelp(int argc, char** argv, const std::string& usage, const std::string& version);

}  // namespace orbamira
