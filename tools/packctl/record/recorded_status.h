#pragma once

#include <json/value.h>

#include "updater/enumerations.h"
#include "updater/status_record.h"

/// The recorded status, as packctl reads it and tells of it.
namespace orbamira::packctl {

using updater::IsUnderWay;
using updater::StatusRecord;

/// The library's ReadStatusRecord(), whose std::domain_error tells the user what mends it.
StatusRecord ReadStatus();

/// The same, but an empty record where none can be read: for who goes on and leaves it to the next step to tell.
StatusRecord ReadStatusIfPossible();

/// Whether the status is that of a failed download or install.
bool IsFailed(updater::PackStatus status);

/// The status as the status store spells it.
const char* StatusText(updater::PackStatus status);

/// The record under the keys of the status store; sizes are numbers.
Json::Value StatusJson(const StatusRecord& record);

}  // namespace orbamira::packctl
