// Brings the codec pack up to date once and shows how far it is: what a host does at night or behind a button. Killed
// at any point and started again, it puts in order what it left and goes on.
//
// usage: update
//
// Ends with 0 after an update and when there is no new pack, and with 1 when the update failed or another program is at
// work; the reason is in the system log, and so is why a check found nothing.

#include <cstddef>
#include <exception>
#include <iostream>
#include <memory>
#include <utility>

#include "platform/constants.h"
#include "platform/key_value_store.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"
#include "updater/health.h"
#include "updater/kos_helper.h"
#include "updater/pack_handler.h"
#include "updater/pack_manager.h"
#include "updater/pack_status_helper.h"
#include "updater/plugin_notifier.h"
#include "updater/recovery.h"
#include "updater/update_lock.h"

namespace {

using namespace orbamira;
using namespace orbamira::updater;

// The manager reports every stage to its status helper. One that also tells the user needs to know no more than that:
// there is nothing to poll, and no thread besides the one that works.
class TellingStatusHelper : public PackStatusHelper {
 public:
  using PackStatusHelper::PackStatusHelper;
  using PackStatusHelper::SetAsDownloadInstalling;

  // Bytes; the total is 0 while the server has not named it.
  void SetAsDownloadInstalling(long now, long total) const override {
    PackStatusHelper::SetAsDownloadInstalling(now, total);
    while (total > 0 && told_quarters_ < 4 && now * 4 >= total * (told_quarters_ + 1)) {
      std::cout << "downloaded " << 25 * ++told_quarters_ << " %\n";
    }
  }

  void SetAsDownloadInstalling(InstallStep step) const override {
    PackStatusHelper::SetAsDownloadInstalling(step);
    std::cout << "step: " << kInstallStepTexts[static_cast<std::size_t>(step)] << '\n';
  }

 private:
  mutable long told_quarters_ = 0;
};

// What there is to do under the lock; false when it failed.
bool Update(const UpdateLock& lock) {
  Recover(lock);  // what an earlier run left when it was killed, or the power went

  // PackManager::Create() makes a manager over the platform's services. Whoever wants one part to be another makes the
  // others the same way and hands them all over.
  std::shared_ptr<store::IKeyValueStore> store = store::FileKeyValueStore::Create(path::kPackStatusFile);
  std::shared_ptr<IPackHandler> handler = PackHandler::Create();
  if (store == nullptr || handler == nullptr) {
    std::cerr << "update: the status cannot be recorded in " << path::kPackStatusFile << '\n';
    return false;
  }
  const auto status = std::make_shared<TellingStatusHelper>(std::move(store));
  const PackManager manager(std::make_shared<wrapper::OrbaCoreWrapper>(), std::make_shared<wrapper::OrbaPkgWrapper>(),
                            KOSHelper::Create(), status, std::move(handler), PluginNotifier::Create());

  // An earlier run was interrupted before it knew whether its pack is healthy. One that is not goes now.
  if (IsUnchecked() && !ConfirmHealth(lock, *status)) {
    std::cout << "the new pack was not healthy\n";
  }

  // A check that finds a newer pack records it; besides that, there is only an update to do again that failed.
  if (!manager.CheckNewPack() && !RepeatFailedUpdate(lock, manager, *status)) {
    std::cout << "no new pack\n";
    return true;
  }
  status->GetPackStatus();  // the queries answer from the last read
  if (IsRejected(status->GetPackNewVersion())) {
    std::cout << "no new pack but a rejected one\n";
    status->SetAsUpToDate();
    return true;
  }
  std::cout << "new pack: version " << status->GetPackNewVersion() << '\n';

  if (!manager.DownloadAndInstall() || !ConfirmInstall(lock, *status)) {
    Recover(lock);  // brings the old pack back
    std::cout << "update failed\n";
    return false;
  }
  if (!ConfirmHealth(lock, *status)) {
    std::cout << "the new pack was not healthy\n";
    return false;
  }
  std::cout << "up to date\n";
  return true;
}

}  // namespace

int main() try {
  const UpdateLock lock;  // packctl and other hosts keep away meanwhile
  return Update(lock) ? 0 : 1;
} catch (const std::exception& error) {
  std::cerr << "update: " << error.what() << '\n';
  return 1;
}
