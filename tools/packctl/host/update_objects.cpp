#include "tools/packctl/host/update_objects.h"

#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/key_value_store.h"
#include "platform/log.h"
#include "tools/packctl/host/direct_core.h"
#include "updater/plugin_notifier.h"
#include "updater/update_request.h"

namespace orbamira::packctl {
namespace {

/// Under the lock: what opens the store may set a broken file aside, and must not take one away that is being saved.
std::shared_ptr<store::IKeyValueStore> OpenStore() {
  const store::FileLock lock(path::kPackStatusLock);
  return store::FileKeyValueStore::Create(path::kPackStatusFile);
}

/// Says why a folder cannot be made: the library's own lines do not.
class TellingSDK : public wrapper::OrbaSDKWrapper {
 public:
  int MakeDirectory(const std::string& path) override {
    const int result = OrbaSDKWrapper::MakeDirectory(path);
    if (result < 0) {
      ORBAMIRA_LOG_ERROR("cannot make the folder %s: %s", path.c_str(),
                         std::generic_category().message(-result).c_str());
    }
    return result;
  }
};

}  // namespace

UpdateObjects MakeUpdateObjects() {
  std::shared_ptr<updater::IKOSHelper> facts = updater::KOSHelper::Create();
  std::shared_ptr<store::IKeyValueStore> store = OpenStore();
  if (store == nullptr) {
    throw std::runtime_error(std::string("cannot use the status store ") + path::kPackStatusFile);
  }
  auto status = std::make_shared<AskedStatusHelper>(std::move(store));
  auto core = std::make_shared<DirectCore>();
  auto handler =
      std::make_shared<CheckingPackHandler>(wrapper::CprSession::Create(), facts, core, std::make_shared<TellingSDK>());
  auto packages = std::make_shared<updater::PackageJudge>(core, std::make_shared<wrapper::OrbaPkgWrapper>());
  auto manager = std::make_unique<updater::PackManager>(core, packages, facts, status, handler,
                                                        std::make_shared<updater::PluginNotifier>(core));
  // Only a flow of the manager asks for a link, so both exist then.
  handler->LookBeforeDownload([core, handler = handler.get(), manager = manager.get()](const Offer& offer) {
    const updater::PackChoice choice = updater::ChoosePack(*manager);
    core->ExpectPack(updater::PackName(choice.with_aac), offer.version);
    // An application that asks for AAC gets the pack that has it, whatever its version: so does a check offer it.
    if (choice.reason != updater::PackReason::kAacRequested) {
      handler->RefuseOlder(offer.version);
    }
  });
  return {std::move(core), std::move(packages), std::move(status), std::move(handler), std::move(manager)};
}

}  // namespace orbamira::packctl
