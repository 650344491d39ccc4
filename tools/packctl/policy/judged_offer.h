#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/policy/decision.h"
#include "tools/packctl/policy/hold.h"
#include "tools/packctl/policy/offer_note.h"
#include "tools/packctl/record/recorded_status.h"

/// The judgement of the pack that the record has on offer, by what this machine keeps and is set to.
namespace orbamira::packctl {

/// What was judged, and how.
struct JudgedRecord {
  bool is_on_offer = false;                ///< the record names a pack that waits
  OfferNote note = {};                     ///< what is known of it
  std::optional<Wait> wait = {};           ///< why it is not to be installed now
  std::vector<std::string> problems = {};  ///< of the settings
};

/// Judges. `is_in_use` tells whether a program uses the installed pack.
JudgedRecord JudgeRecord(const StatusRecord& record, const std::function<bool()>& is_in_use);

/// Why the pack on offer waits, for one who only looks: programs that use the pack count where they did when the
/// history was told of them. Empty without a pack on offer, and where it is about to be installed.
std::optional<Wait> WaitOf(const StatusRecord& record);

}  // namespace orbamira::packctl
