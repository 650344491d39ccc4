#pragma once

#include <string>

#include "tools/packctl/record/history.h"

namespace orbamira::packctl {

/// An entry of the history for a person, with a line end: when, which command, and in a sentence how it ended. With
/// `verbose` more lines follow: the packs before and after by their full names, and all that was said of a failure.
std::string HistoryText(const HistoryEntry& entry, bool verbose);

}  // namespace orbamira::packctl
