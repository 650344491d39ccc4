#pragma once

#include <string>
#include <vector>

#include "platform/orba_core_wrapper.h"

/// How packctl runs the library's programs.
namespace orbamira::packctl {

/// The library's core services, without the starts that cost more than the work itself: most of a small update's
/// processor time goes into starting programs.
/// - It removes files and folders itself, in the way of orba-remove, whose result and message it gives.
/// - It tells no plugin of a step where the plugins' folder is missing or empty, and gives success.
class DirectCore : public wrapper::OrbaCoreWrapper {
 public:
  int RunCommand(const std::vector<std::string>& args) override;

  /// From now on orba-archive accepts packages without a signature, whatever keyring there is.
  void TrustPackages() { trusts_packages_ = true; }

  /// From now on orba-archive accepts no other signed package than that of this pack. A name or version that is not
  /// known, and so empty, demands nothing.
  void ExpectPack(const std::string& name, const std::string& version);

 private:
  int RunArchive(std::vector<std::string> args);

  bool trusts_packages_ = false;
  std::string expected_;  // NAME=VERSION; empty: any
};

}  // namespace orbamira::packctl
