#pragma once

#include <cstdint>
#include <string>

#include "platform/export.h"
#include "updater/enumerations.h"

namespace orbamira::updater {

/// The recorded state as any process may read it: what PackStatusHelper's queries tell, without cutting sizes to 32
/// bits and without giving one step for two texts.
struct StatusRecord {
  PackStatus status = kStatusLost;       ///< the state; kStatusLost where none is recorded
  std::string new_pack_name = {};        ///< name of the pack on offer; empty unless an install waits or failed
  std::string new_version = {};          ///< version of the pack on offer; empty when none is
  std::int64_t download_size_now = 0;    ///< bytes downloaded so far
  std::int64_t download_size_total = 0;  ///< bytes of the whole download; 0 while unknown
  std::string install_step = {};         ///< a text of kInstallStepTexts: empty outside of an install
};

/// Whether all members are equal.
[[nodiscard]] ORBAMIRA_EXPORT bool operator==(const StatusRecord& left, const StatusRecord& right);
/// Whether one of them is not.
[[nodiscard]] ORBAMIRA_EXPORT bool operator!=(const StatusRecord& left, const StatusRecord& right);

/// Reads orbamira::path::kPackStatusFile under its lock, and waits while another process holds that. Makes nothing and
/// sets nothing aside: a store that does not exist reads as kStatusLost, and without a lock file it is read without.
///
/// Throws std::domain_error for a store that is no JSON object of texts and for a text that cannot be decoded; a
/// recovery mends both. Throws std::system_error when the store or its lock cannot be opened. Safe to call from several
/// threads at once.
[[nodiscard]] ORBAMIRA_EXPORT StatusRecord ReadStatusRecord();

/// Whether the status says that a program is at work: downloading, installing or both.
[[nodiscard]] ORBAMIRA_EXPORT bool IsUnderWay(PackStatus status);

}  // namespace orbamira::updater
