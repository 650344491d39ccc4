#pragma once

#include <optional>
#include <string>
#include <vector>

#include "updater/health.h"

// What is remembered of the health of packs. Not installed.
namespace orbamira::updater {

/// The name and version of a pack, as its information file tells them.
struct PackId {
  std::string package = {};
  std::string version = {};

  friend bool operator==(const PackId&, const PackId&) = default;
};

/// The pack in the folder; empty when there is none.
std::optional<PackId> PackIn(const std::string& folder);

/// The rejected versions, in path::kHealthFile. The newest is the last.
class Rejections {
 public:
  /// Reads them; none when there is no such file, or it cannot be read. No lock is needed: the file is replaced whole.
  static Rejections Read();

  [[nodiscard]] const std::vector<RejectedVersion>& all() const { return all_; }
  [[nodiscard]] bool Has(const std::string& version) const;

  /// Adds the version; forgets the oldest of very many.
  void Add(RejectedVersion version);

  /// Forgets the version, which is healthy, and older ones, which nobody comes back to. False when there was none.
  bool Forget(const std::string& version);

  /// The rejections outlive a power cut. Throws std::system_error.
  void Write() const;

 private:
  std::vector<RejectedVersion> all_;
};

/// The pack that was found healthy, or was there before anybody asked, in path::kHealthyPackFile. Empty when it is not
/// known.
std::optional<PackId> HealthyPack();

/// Notes the pack as healthy. Nothing waits for the disk: a note that a power cut takes costs another check. Best
/// effort.
void NoteHealthyPack(const PackId& pack);

/// Makes the note if there is none: the pack that is installed now, if any, counts as healthy. This note outlives a
/// power cut. Throws std::system_error.
void EnsureHealthyPackNote();

}  // namespace orbamira::updater
