#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "tests/fuzz/flow/input.h"
#include "tests/fuzz/flow/package.h"
#include "tests/fuzz/flow/programs.h"

namespace orbamira::fuzz::flow {

/// A folder's files, folders and links by their paths in it: each kind with its content.
using Tree = std::map<std::string, std::string>;

/// What there is at the path, a link not followed; empty when there is nothing.
Tree TreeAt(const std::string& path);

/// The value of the key in the pack's INFO; empty when there is none.
std::string InfoOf(const std::string& pack, const char* key);

/// What the bytes of kWorld say. The first has one bit for each thing that is there: a keyring, a pack, its AAC codec,
/// a backup, a previous pack, unpacked files, a download, a half-built pack. The second has the package's signing (2
/// bits), what a judgement of health says (2), whether there is a program that judges, whether the host has packages
/// judged, whether a plugin's answer is plain, and a half-removed pack with a temporary file. The third is the exit
/// status of told plugins, and in its highest bit whether the healthy server at the end offers the installed version
/// instead of a newer one.
struct World {
  explicit World(const std::string& bytes);

  [[nodiscard]] bool Has(unsigned bit) const { return (there >> bit & 1U) != 0; }

  uint8_t there;
  uint8_t more;
  uint8_t last;

  static constexpr std::size_t kSize = 3;  ///< of the bytes

  static constexpr unsigned kKeyring = 0;
  static constexpr unsigned kPack = 1;
  static constexpr unsigned kAac = 2;
  static constexpr unsigned kBackup = 3;
  static constexpr unsigned kPrevious = 4;
  static constexpr unsigned kUnpacked = 5;
  static constexpr unsigned kDownload = 6;
  static constexpr unsigned kHalfBuilt = 7;

  [[nodiscard]] Signing signing() const { return static_cast<Signing>(more & 3U); }
  [[nodiscard]] int health() const;
  [[nodiscard]] int notified() const { return last & 0x7fU; }
  [[nodiscard]] bool offers_same() const { return (last & 0x80U) != 0; }
  [[nodiscard]] bool has_judges() const { return (more & 0x10U) != 0; }
  [[nodiscard]] bool judges_packages() const { return (more & 0x20U) != 0; }
  [[nodiscard]] bool has_plain_answer() const { return (more & 0x40U) != 0; }
  [[nodiscard]] bool has_half_removed() const { return (more & 0x80U) != 0; }
};

/// Settings under which an update succeeds.
std::string HealthySettings();

/// Makes the appliance in the root folder anew.
void Build(const Input& input, const World& world, const Package& package, const Signer& trusted);

/// Whether work may be under way, or all of it is done.
enum class When { kUnderWay, kDone };

/// Requires that nothing is outside the root folder, and nothing in it but what the updater has its places for.
void CheckPlaces(When when);

}  // namespace orbamira::fuzz::flow
