#pragma once

#include <optional>
#include <string>

// The key=value files that the appliance is set up by. Not installed.
namespace orbamira {

/// The value of the first line of `file` whose key is `key`; empty when there is none, or no regular file that can be
/// read. A file that others than root and the caller can write is ignored, and the log says why. A line is KEY=VALUE;
/// blanks around both and one pair of double quotes around the value are dropped, as is a CR at the end; lines that
/// begin with '#' are comments. Only the first mebibyte of the file is looked at.
std::string ReadSetting(const std::string& file, const std::string& key);

/// A value and the file that sets it.
struct Setting {
  std::string value;
  std::string file;
};

/// The value of the key in the machine's own settings, or else in the maker's; empty when neither sets it.
std::optional<Setting> ReadOwnOrMakersSetting(const std::string& key);

}  // namespace orbamira
