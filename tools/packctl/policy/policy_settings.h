#pragma once

#include <string>
#include <vector>

#include "tools/packctl/policy/decision.h"

/// The settings of when a pack is installed by itself.
namespace orbamira::packctl {

inline constexpr const char* kUpdatePolicy = "update_policy";
inline constexpr const char* kInstallWindow = "install_window";
inline constexpr const char* kInstallWaitDays = "install_wait_days";
inline constexpr const char* kSecurityInstall = "security_install";
inline constexpr const char* kSecurityWaitDays = "security_wait_days";

/// Whether a value may stand for its key.
bool IsUpdatePolicy(const std::string& text);
bool IsInstallWindow(const std::string& text);
bool IsDays(const std::string& text);
bool IsSecurityInstall(const std::string& text);

/// The settings as they can be used, and what is wrong with those that cannot.
struct ReadPolicy {
  PolicySettings settings = {};
  std::vector<std::string> problems = {};  ///< a sentence each
};

/// Reads the machine's settings and the maker's. In place of a value that cannot be used the default holds, and where
/// the policy or a window cannot be understood, installs are left to a person.
ReadPolicy ReadPolicySettings();

}  // namespace orbamira::packctl
