#pragma once

#include <cstdint>
#include <string>

#include "platform/export.h"
#include "updater/enumerations.h"

namespace orbamira::updater {

/// The recorded state as any process may read it. It says what PackStatusHelper's queries say, but sizes are not cut to
/// 32 bits, and "post_uninstall" stays apart from "post_install".
struct StatusRecord {
  PackStatus status = kStatusLost;       ///< the state; kStatusLost when none is recorded
  std::string new_pack_name = {};        ///< name of the pack on offer; empty unless an install waits or failed
  std::string new_version = {};          ///< version of the pack on offer; empty when none is
  std::int64_t download_size_now = 0;    ///< bytes downloaded so far
  std::int64_t download_size_total = 0;  ///< bytes of the whole download; 0 while unknown
  std::string install_step = {};         ///< a text of kInstallStepTexts; empty outside of an install
};

/// Whether all members are equal.
[[nodiscard]] ORBAMIRA_EXPORT bool operator==(const StatusRecord& left, const StatusRecord& right);
/// Whether any member differs.
[[nodiscard]] ORBAMIRA_EXPORT bool operator!=(const StatusRecord& left, const StatusRecord& right);

/// Reads orbamira::path::kPackStatusFile under its lock; blocks while another process holds that. Creates and changes
/// nothing: a store that does not exist reads as kStatusLost, and without a lock file the store is read without a lock.
///
/// Throws std::domain_error when the store is no JSON object of texts or a text in it cannot be decoded; Recover()
/// mends both. Throws std::system_error when the store or its lock cannot be opened. Safe to call from several threads
/// at once.
[[nodiscard]] ORBAMIRA_EXPORT StatusRecord ReadStatusRecord();

/// Whether the status means "in progress": downloading, installing or both.
[[nodiscard]] ORBAMIRA_EXPORT bool IsUnderWay(PackStatus status);

}  // namespace orbamira::updater
