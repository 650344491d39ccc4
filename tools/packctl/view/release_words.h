#pragma once

#include <string>

#include "tools/packctl/record/answered_check.h"

/// What to say of releases beside the offer.
namespace orbamira::packctl {

/// "1.2 is offered to 5 % of the appliances so far, and not to this one"
std::string StagedWords(const StagedRelease& release);

/// A line for each thing to say, with what leads on; empty without any.
std::string OtherReleasesLines(const OtherReleases& others);

}  // namespace orbamira::packctl
