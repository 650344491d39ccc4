#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/packctl/cli/console.h"

/// What the library knows of codecs on this machine: those that are installed, and those that applications want.
namespace orbamira::packctl {

/// HEVC's name in the codec-requirements file, beside kAac.
inline constexpr const char* kHevc = "hevc";

/// Codecs by their names in the codec-requirements file.
struct CodecReport {
  std::vector<std::string> installed = {};
  std::vector<std::string> requested = {};  ///< those that an application asks for
  /// Who asks for them, by codec; 20 of each at most. Empty where that cannot be told.
  std::map<std::string, std::vector<std::string>> applications = {};
  std::vector<std::string> problems = {};  ///< why `requested` cannot be told, a sentence each; mostly empty

  friend bool operator==(const CodecReport&, const CodecReport&) = default;
};

/// Waits for the lock of the codec requirements. Takes what the console holds: the library says only in its log that it
/// cannot read them. Throws std::exception when the library cannot be used.
CodecReport ReadCodecs(Console& console);

}  // namespace orbamira::packctl
