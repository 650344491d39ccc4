#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace orbamira::tools {

/// The members of a package that say what it is, and the most bytes that each of these texts may have.
constexpr const char* kInfoName = "INFO";
constexpr const char* kManifestName = "MANIFEST";
constexpr const char* kSignatureName = "MANIFEST.sig";
constexpr uint64_t kMaxTextSize = 1UL << 20U;
/// The bytes of a line in MANIFEST besides the name: a digest, two blanks and the end of the line.
constexpr uint64_t kManifestLineSize = 67;

/// Digests of members by their names: SHA-256 in lower-case hexadecimal digits.
using Digests = std::map<std::string, std::string>;

/// What is signed of a package: the digests of its members, and since format 2 what the package is.
struct Manifest {
  unsigned format = 1;
  std::string product = {};                           ///< empty in format 1, as what follows
  std::string pack = {};                              ///< the name of the pack
  std::string version = {};                           ///< the version of the pack
  std::string minimum = {};                           ///< no older version is to be installed again; may be empty
  std::optional<std::chrono::sys_days> expires = {};  ///< the last day on which it may be installed; empty: no last
  Digests digests = {};
};

/// Reads the text of MANIFEST: lines as sha256sum(1) prints them, and before them in format 2 a comment for each fact,
/// "# KEY: VALUE". Throws std::runtime_error for a text of another form, and for a format that is not known.
Manifest ParseManifest(std::string_view text);

}  // namespace orbamira::tools
