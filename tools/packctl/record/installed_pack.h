#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/cli/console.h"
#include "tools/packctl/record/history.h"

/// What the library knows of packs on this machine: the one that is installed, and what applications want of it.
namespace orbamira::packctl {

/// The installed pack.
struct InstalledPack {
  PackIdentity identity = {};  ///< as its information file names it
  std::time_t updated = 0;     ///< when that file was written, in seconds since the epoch

  friend bool operator==(const InstalledPack&, const InstalledPack&) = default;
};

/// The installed pack; empty when there is none.
std::optional<InstalledPack> ReadInstalledPack();

/// Codecs by their names in the codec-requirements file.
struct CodecReport {
  std::vector<std::string> installed = {};
  std::vector<std::string> requested = {};  ///< those that an application asks for
  std::vector<std::string> problems = {};   ///< why `requested` cannot be told, a sentence each; mostly empty

  friend bool operator==(const CodecReport&, const CodecReport&) = default;
};

/// Waits for the lock of the codec requirements. Takes what the console holds: the library says only in its log that it
/// cannot read them. Throws std::exception when the library cannot be used.
CodecReport ReadCodecs(Console& console);

}  // namespace orbamira::packctl
