#pragma once

#include <string>

namespace orbamira::packctl {

/// Makes a page for the user's browser that needs no other file. The texts are escaped, so they may contain anything.
[[nodiscard]] std::string MakePage(const std::string& title, const std::string& text);

/// The Content-Security-Policy for the page: its own style, and nothing else may be loaded or run.
[[nodiscard]] std::string PagePolicy();

}  // namespace orbamira::packctl
