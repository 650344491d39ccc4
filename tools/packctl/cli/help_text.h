#pragma once

#include <array>

/// What packctl's help and manual page say of the whole program.
namespace orbamira::packctl {

/// Something that a reader types or sets, and what it is for.
struct Explained {
  const char* term;
  const char* meaning;
};

inline constexpr std::array kExamples = {
    Explained{"packctl status", "Show what is installed and what you may do."},
    Explained{"sudo packctl check && sudo packctl update", "Install a newer pack if there is one."},
    Explained{"packctl history --limit 5", "Show what was done last."},
    Explained{"sudo packctl doctor", "Find out what is wrong and what to do about it."},
    Explained{"packctl --json status", "Give a program the recorded status."},
};

inline constexpr std::array kEnvironment = {
    Explained{"ORBAMIRA_ROOT", "stands in front of every path, for example of a staged system"},
    Explained{"PAGER", "the command that shows the history on a terminal (default less); empty for none"},
    Explained{"LESS", "options of less (default FRX)"},
    Explained{"NO_COLOR", "if set to anything, no text is coloured unless --color asks for it"},
    Explained{"COLUMNS", "the width of the terminal if it does not tell (default 80)"},
};

}  // namespace orbamira::packctl
