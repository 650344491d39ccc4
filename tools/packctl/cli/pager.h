#pragma once

#include <string>

#include "tools/packctl/cli/console.h"

namespace orbamira::packctl {

/// Shows the text in a pager and waits until it ends: in the shell command $PAGER, or in less if that is not set.
///
/// False if nothing was shown, so that the caller prints the text: the output is no terminal or one that cannot move
/// its cursor, $PAGER is empty, or the pager cannot be started. Meanwhile SIGINT and SIGQUIT are the pager's.
/// less leaves a text that fits on the screen there, and may start no other program, since packctl often runs by sudo.
[[nodiscard]] bool ShowInPager(const Console& console, const std::string& text);

}  // namespace orbamira::packctl
