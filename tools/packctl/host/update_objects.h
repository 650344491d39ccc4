#pragma once

#include <memory>

#include "tools/packctl/host/asked_status_helper.h"
#include "tools/packctl/host/checking_pack_handler.h"
#include "tools/packctl/host/direct_core.h"
#include "updater/pack_manager.h"
#include "updater/package_judge.h"

/// packctl as a host of the library: the library's objects, and what packctl adds to them.
namespace orbamira::packctl {

/// The library's objects, put together as PackManager::Create() does it, with package services that also judge the
/// signature, a handler that remembers its offers and a status helper that remembers its permissions.
struct UpdateObjects {
  std::shared_ptr<DirectCore> core;
  std::shared_ptr<updater::PackageJudge> packages;
  std::shared_ptr<AskedStatusHelper> status;
  std::shared_ptr<CheckingPackHandler> handler;
  std::unique_ptr<updater::PackManager> manager;
};

/// Makes them. Throws std::runtime_error when the status store cannot be used.
UpdateObjects MakeUpdateObjects();

}  // namespace orbamira::packctl
