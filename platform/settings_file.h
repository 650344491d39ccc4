#pragma once

#include <optional>
#include <string>

// Reads the settings files (key=value) of the appliance. Not installed.
namespace orbamira {

/// The value in the first line of `file` with this key; empty when there is none, and when `file` is no regular file or
/// cannot be read. A file that users other than root and the caller may write is ignored, and the log says why.
///
/// A line is KEY=VALUE. Blanks around both, one pair of double quotes around the value and a carriage return at the end
/// are dropped. Lines that begin with '#' are comments. Only the first mebibyte of the file is read.
std::string ReadSetting(const std::string& file, const std::string& key);

/// A value and the file that sets it.
struct Setting {
  std::string value;
  std::string file;
};

/// The value of the key in the machine's own settings, or else in the maker's; empty when neither sets it.
std::optional<Setting> ReadOwnOrMakersSetting(const std::string& key);

}  // namespace orbamira
