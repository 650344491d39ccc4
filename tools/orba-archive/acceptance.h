#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "platform/posix/trusted_time.h"
#include "tools/orba-archive/manifest.h"

namespace orbamira::tools {

/// The contents of a package, as far as it is judged by them.
struct PackageContents {
  std::optional<std::string> manifest = {};   ///< MANIFEST, if there is one
  std::optional<std::string> signature = {};  ///< MANIFEST.sig, if there is one
  std::string info = {};                      ///< INFO, if there is one
  Digests digests = {};                       ///< of each other member, INFO among them
};

/// The pack that a package is to have.
struct OfferedPack {
  std::string name = {};
  std::string version = {};
};

/// What an appliance with a keyring knows when it judges a package.
struct Demands {
  std::string keyring = {};    ///< the file
  unsigned least_format = 1;   ///< that the manifest must have
  std::string installed = {};  ///< version of the pack in place or of its backup, whichever is newer; may be empty
  std::string minimum = {};    ///< the highest that an accepted package has named; may be empty
  TrustedTime time = {};       ///< by which certificates and last days are judged
  std::optional<OfferedPack> offer = {};  ///< the pack that is on offer; empty: any
  bool accepts_older = false;  ///< older versions, and what is past its last day; for root with the package in hand
};

/// What the settings, the pack folder, its backup and the packages accepted before come to. `accepts_older` is what
/// packctl asks for by the environment variable ORBAMIRA_ALLOW_OLDER. Throws std::runtime_error for a setting that
/// cannot be used.
Demands ReadDemands(const std::string& keyring, const std::optional<OfferedPack>& offer);

/// What an accepted package tells about those that come after it.
struct Accepted {
  std::string minimum = {};   ///< that it names; may be empty
  std::time_t signed_at = 0;  ///< in seconds since 1970; 0 if not known
};

/// Refuses a package unless
/// - it carries MANIFEST and MANIFEST.sig, whose signature holds as CheckSignature() says;
/// - the members are just those that MANIFEST lists, and INFO says the same of the pack;
/// - it is for this product, its last day is not over, and it is neither older than what is installed nor than the
///   minimum;
/// - its INFO is that of the pack on offer.
/// A manifest of format 1 says nothing of the pack; its INFO, which is signed too, then tells the version, and may name
/// no pack.
///
/// Throws std::runtime_error with the reason, or std::system_error when the keyring cannot be read.
Accepted Judge(const PackageContents& package, const Demands& demands);

/// Remembers the package for those that come after it. Writes only what is new. Throws std::system_error.
void Remember(const Accepted& accepted);

}  // namespace orbamira::tools
