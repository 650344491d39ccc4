#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "tools/packctl/record/history.h"

/// The installed pack, as its information file tells of it.
namespace orbamira::packctl {

/// The installed pack.
struct InstalledPack {
  PackIdentity identity = {};  ///< as its information file names it
  std::time_t updated = 0;     ///< when that file was written, in seconds since the epoch

  friend bool operator==(const InstalledPack&, const InstalledPack&) = default;
};

/// The installed pack; empty when there is none.
std::optional<InstalledPack> ReadInstalledPack();

/// Its version; empty when there is none.
std::string InstalledVersion();

}  // namespace orbamira::packctl
