#pragma once

#include <string>

namespace orbamira::packctl {

/// A page for the user's browser, whole in itself. The texts are put in as texts, whatever they hold.
[[nodiscard]] std::string MakePage(const std::string& title, const std::string& text);

/// What its style may come from, for the header Content-Security-Policy; nothing else is to be loaded or run.
[[nodiscard]] std::string PagePolicy();

}  // namespace orbamira::packctl
