#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "updater/enumerations.h"

namespace orbamira::packctl {

/// The recorded status as any other process finds it in the status store.
struct StatusRecord {
  updater::PackStatus status = updater::kStatusLost;
  std::string new_pack_name = {};
  std::string new_version = {};
  std::int64_t download_size_now = 0;    ///< bytes
  std::int64_t download_size_total = 0;  ///< bytes; 0 while unknown
  /// One of the step texts. Kept as text, because "post_uninstall" decodes to another step than it was written for.
  std::string install_step = {};

  /// Under the keys of the status store; sizes are numbers.
  [[nodiscard]] Json::Value ToJson() const;

  friend bool operator==(const StatusRecord&, const StatusRecord&) = default;
};

/// Reads the store under its lock. A store that does not exist reads as the default record and is not made. Throws
/// std::domain_error, in words for the user, for a text that cannot be decoded; std::runtime_error when the store or
/// its lock cannot be used.
///
/// A reading of its own, because PackStatusHelper cuts sizes to 32 bits and gives one step for two texts.
StatusRecord ReadStatus();

}  // namespace orbamira::packctl
