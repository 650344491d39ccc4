#pragma once

#include <json/value.h>

#include <span>
#include <string>

namespace orbamira::packctl {

/// A key of the settings, as the doctor judges it and its manual page tells of it.
struct KnownSetting {
  const char* key;
  const char* value;                     ///< what it must be, continuing "set it to ": "a whole number of bytes"
  bool (*is_valid)(const std::string&);  ///< whether a value that is not empty may stand; null for the address
  const char* default_value;             ///< what holds when nothing is set; may be empty
  const char* meaning;                   ///< whole sentences
  const char* example;                   ///< a line of the file
  bool is_secret = false;                ///< the value may hold a password, and is never shown
};

/// All keys that the updater reads.
std::span<const KnownSetting> KnownSettings();

/// The same, for whoever writes the manual page: a list of {"key", "value", "default", "meaning", "example"}.
Json::Value DescribeSettings();

}  // namespace orbamira::packctl
