#pragma once

#include <optional>
#include <string>

// What all our programs do when they start and print. Not installed.
namespace orbamira {

/// Opens /dev/null for each standard stream that is closed. Otherwise the next file that is opened would get its
/// number, and what the program prints would go into that file. Throws std::system_error.
void OpenStandardStreams();

/// Ignores SIGPIPE and SIGXFSZ: when the reader of our output goes away or a file gets too large, the write fails and
/// the program can report it.
void IgnoreOutputSignals();

/// Prints all that the program has to print. Returns the exit status: EXIT_FAILURE when the text could not be printed.
int PrintAll(const std::string& text);

/// Prints `usage` when the only argument is "--help", and `version` with a line end when it is "--version". Returns the
/// exit status; empty for any other arguments.
std::optional<int> AnswerHelp(int argc, char** argv, const std::string& usage, const std::string& version);

}  // namespace orbamira
