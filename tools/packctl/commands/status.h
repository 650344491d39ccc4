#pragma once

#include <json/value.h>

#include "tools/packctl/record/recorded_status.h"

/// "packctl status".
namespace orbamira::packctl {

/// The record, and whether somebody is at the work that it tells of.
struct SeenStatus {
  StatusRecord record = {};
  bool is_interrupted = false;  ///< it says that work is in progress, and nobody is at work

  friend bool operator==(const SeenStatus&, const SeenStatus&) = default;
};

/// Looks at both. Throws what ReadStatus() throws.
SeenStatus LookAtStatus();

/// What the command prints with --json: the record, "interrupted", "last_check" and "support_until".
Json::Value StatusAnswer(const SeenStatus& seen);

}  // namespace orbamira::packctl
