#include "tests/fuzz/flow/host.h"

#include <numeric>
#include <utility>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/orba_pkg_wrapper.h"
#include "platform/orba_sdk_wrapper.h"
#include "tests/fuzz/fuzzing.h"
#include "updater/health.h"
#include "updater/json_text.h"
#include "updater/kos_helper.h"
#include "updater/pack_handler.h"
#include "updater/package_judge.h"
#include "updater/plugin_notifier.h"
#include "updater/recovery.h"

namespace orbamira::fuzz::flow {
namespace {

using namespace updater;

/// The real store, in whose changes a host may be killed.
class StruckStore : public store::IKeyValueStore {
 public:
  StruckStore(std::unique_ptr<IKeyValueStore> store, Strikes& strikes) : store_(std::move(store)), strikes_(strikes) {}

  bool Has(const std::string& key) override { return store_->Has(key); }
  std::string Get(const std::string& key) override { return store_->Get(key); }
  void Set(const std::string& key, const std::string& value) override {
    strikes_.Own([&] { store_->Set(key, value); });
  }
  void Clear() override {
    strikes_.Own([&] { store_->Clear(); });
  }

 private:
  std::unique_ptr<IKeyValueStore> store_;
  Strikes& strikes_;
};

std::shared_ptr<store::IKeyValueStore> OpenStore(Strikes& strikes) {
  const store::FileLock lock(path::kPackStatusLock);
  auto opened = store::FileKeyValueStore::Create(path::kPackStatusFile);
  Require(opened != nullptr, "a store can be had over any file");
  return std::make_shared<StruckStore>(std::move(opened), strikes);
}

std::shared_ptr<wrapper::IOrbaPkgWrapper> Checksums(const std::shared_ptr<wrapper::IOrbaCoreWrapper>& programs,
                                                    bool judges_packages) {
  auto checksums = std::make_shared<wrapper::OrbaPkgWrapper>();
  if (!judges_packages) {
    return checksums;
  }
  return std::make_shared<PackageJudge>(programs, checksums);
}

}  // namespace

Host::Host(const std::shared_ptr<wrapper::IOrbaCoreWrapper>& programs, Strikes& strikes, bool judges_packages)
    : programs_(programs), status_(std::make_shared<PackStatusHelper>(OpenStore(strikes))) {
  auto handler = std::make_shared<PackHandler>(nullptr, KOSHelper::Create(), programs,
                                               std::make_shared<wrapper::OrbaSDKWrapper>());
  manager_ = std::make_unique<PackManager>(programs, Checksums(programs, judges_packages), KOSHelper::Create(), status_,
                                           std::move(handler), std::make_shared<PluginNotifier>(programs));
}

void Host::Do(Step step) {
  if (step == Step::kUpdateAlone) {
    if (manager_->CheckNewPack()) {
      manager_->DownloadAndInstall();
    }
    return;
  }
  const UpdateLock lock;
  switch (step) {
    case Step::kUpdate:
      return Update(lock);
    case Step::kCheck:
      manager_->CheckNewPack();
      break;
    case Step::kDownload:
      manager_->Download();
      break;
    case Step::kInstall:
      manager_->Install();
      break;
    case Step::kDownloadAndInstall:
      manager_->DownloadAndInstall();
      break;
    case Step::kRemove:
      manager_->RemovePack();
      break;
    case Step::kRecover:
      Recover(lock);
      break;
    case Step::kConfirmHealth:
      static_cast<void>(ConfirmHealth(lock, *status_, programs_));
      break;
    case Step::kRollBack:
      RollBack(lock, *status_, "by hand", programs_);
      break;
    case Step::kAskForIds:
      AskForIds();
      break;
    case Step::kUpdateAlone:
    case Step::kCount:
      break;
  }
}

void Host::Update(const UpdateLock& lock) {
  Recover(lock);
  if (IsUnchecked()) {
    static_cast<void>(ConfirmHealth(lock, *status_, programs_));
  }
  if (!manager_->CheckNewPack() && !RepeatFailedUpdate(lock, *manager_, *status_)) {
    return;
  }
  status_->GetPackStatus();
  if (IsRejected(status_->GetPackNewVersion())) {
    status_->SetAsUpToDate();
    return;
  }
  if (!manager_->DownloadAndInstall() || !ConfirmInstall(lock, *status_)) {
    Recover(lock);
    return;
  }
  static_cast<void>(ConfirmHealth(lock, *status_, programs_));
}

void Host::AskForIds() {
  const std::vector<std::string> ids = PluginNotifier(programs_).GetAppId();
  const std::size_t size = std::accumulate(ids.begin(), ids.end(), std::size_t{0},
                                           [](std::size_t sum, const std::string& id) { return sum + id.size(); });
  Require(size <= kJsonTextLimit, "no more ids than an answer may have");
}

}  // namespace orbamira::fuzz::flow
