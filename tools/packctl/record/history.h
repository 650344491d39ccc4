#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/record/failure.h"

/// What packctl has done on this machine: kept in a file of JSON lines, read back for people and for the page.
namespace orbamira::packctl {

/// A pack by name and version; either is empty where it is not known.
struct PackIdentity {
  std::string package = {};
  std::string version = {};

  friend bool operator==(const PackIdentity&, const PackIdentity&) = default;
};

/// What one run of packctl did and how it ended.
struct HistoryEntry {
  std::time_t time = 0;                   ///< when it ended, in seconds since the epoch
  std::int64_t duration_ms = 0;           ///< how long it took
  std::string command = {};               ///< as it is typed
  std::optional<PackIdentity> from = {};  ///< the pack that was installed before; empty without one
  std::optional<PackIdentity> to = {};    ///< the pack that is installed or waits now; empty without one
  std::string result = {};                ///< the command's own word for how it ended
  std::string status = {};                ///< the recorded status after it; empty when it could not be read
  int exit = 0;                           ///< the exit status
  std::vector<std::string> errors = {};   ///< all that was said of why it failed, a sentence each
  std::optional<Failure> failure = {};    ///< why it failed; empty for success, and in entries of older releases

  /// As it is printed and kept.
  [[nodiscard]] Json::Value ToJson() const;

  friend bool operator==(const HistoryEntry&, const HistoryEntry&) = default;
};

/// What ReadHistory() found.
struct History {
  std::vector<HistoryEntry> entries;  ///< oldest first
  std::size_t damaged = 0;            ///< lines that are no entry

  /// What is wrong with it, a sentence each.
  [[nodiscard]] std::vector<std::string> Problems() const;
};

/// Adds the entry to the history and syncs it; texts that are too long are cut. At a quarter of a mebibyte the file
/// takes the place of the older one beside it and a new one is begun. A line that an earlier run could not finish is
/// ended. Throws std::exception when the entry could not be kept, whole or not at all. For one caller at a time.
void AppendToHistory(const HistoryEntry& entry);

/// The newest entry; empty without one, and when it cannot be read. Reads the end of the history alone.
std::optional<HistoryEntry> ReadNewestEntry();

/// Reads both files. Lines that are no entry, such as the last of a run that was cut short, are counted and passed
/// over. Without a history there are no entries. Throws std::system_error when a file is there but cannot be read.
History ReadHistory();

}  // namespace orbamira::packctl
