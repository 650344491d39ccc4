#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/orba_core_wrapper.h"
#include "tests/fuzz/flow/strikes.h"
#include "updater/pack_manager.h"
#include "updater/pack_status_helper.h"
#include "updater/update_lock.h"

namespace orbamira::fuzz::flow {

/// What a host may do.
enum class Step : uint8_t {
  kUpdate,  ///< all that keeps a pack safe, as in examples/update.cpp
  kUpdateAlone,
  kCheck,
  kDownload,
  kInstall,
  kDownloadAndInstall,
  kRemove,
  kRecover,
  kConfirmHealth,
  kRollBack,
  kAskForIds,
  kCount
};

/// A program with the library in it, from its start to its end.
class Host {
 public:
  Host(const std::shared_ptr<wrapper::IOrbaCoreWrapper>& programs, Strikes& strikes, bool judges_packages);

  /// Throws what the library throws, and Killed.
  void Do(Step step);

 private:
  void Update(const updater::UpdateLock& lock);
  void AskForIds();

  std::shared_ptr<wrapper::IOrbaCoreWrapper> programs_;
  std::shared_ptr<updater::IPackStatusHelper> status_;
  std::unique_ptr<updater::PackManager> manager_;
};

}  // namespace orbamira::fuzz::flow
