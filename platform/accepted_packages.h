#pragma once

#include <ctime>
#include <string>

namespace orbamira {

/// What the appliance remembers of the signed packages that it accepted to install, so that no older one comes back. It
/// is kept in path::kAcceptedPackagesFile, which a removal of the pack leaves. Not installed.
struct AcceptedPackages {
  std::string minimum = {};          ///< the highest minimum version that any of them named; may be empty
  std::time_t newest_signature = 0;  ///< when the newest of them was signed, in seconds since 1970; 0 if not known

  friend bool operator==(const AcceptedPackages&, const AcceptedPackages&) = default;
};

/// What is remembered; nothing where the file is missing or cannot be used.
AcceptedPackages ReadAcceptedPackages();

/// Replaces what is remembered. It outlives a power cut. Throws std::system_error.
void SaveAcceptedPackages(const AcceptedPackages& accepted);

}  // namespace orbamira
