#pragma once

#include <json/value.h>

#include <string>

namespace orbamira::packctl {

/// The value as JSON on one line, its end included.
std::string JsonLine(const Json::Value& value);

}  // namespace orbamira::packctl
