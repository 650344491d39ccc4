#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace orbamira::packctl {

/// What a recovery found and did, one sentence each.
struct RecoveryReport {
  std::vector<std::string> done;    ///< what was put in order
  std::vector<std::string> failed;  ///< what could not be
};

/// Puts in order what an interrupted update left behind: the pack and its backup, temporary folders and files, the
/// download, and a recorded status that says work is under way.
///
/// Each step stands alone: one that fails is reported and the next is taken. Doing it twice is doing it once. What it
/// did outlives a power cut. Whatever it says is also logged. The caller makes sure that no update is running.
RecoveryReport Recover();

/// The part of a recovery that ends removals which were cut short or met an error; also beside a running update.
void EndRemovals();

/// The folders and files that an interrupted update may have left and that a recovery would put away, in order of their
/// names; while an update is running, what it needs. Changes nothing.
std::vector<std::filesystem::path> FindLeftovers();

}  // namespace orbamira::packctl
