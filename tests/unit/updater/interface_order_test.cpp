#include <gmock/gmock.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "tests/support/vtable.h"
#include "updater/kos_helper.h"
#include "updater/oa_helper.h"
#include "updater/pack_handler.h"
#include "updater/pack_manager.h"
#include "updater/pack_status_helper.h"
#include "updater/plugin_notifier.h"

// Programs that were linked with the library call its operations by their numbers, so each list stands in the order of
// those numbers and never changes. The two destructors take slots 0 and 1.
namespace orbamira::updater {
namespace {

using test::SlotOf;

// The overload of the given signature.
template <typename Signature, typename Class>
Signature Class::*Overload(Signature Class::*method) {
  return method;
}

std::vector<std::size_t> SlotsFromTwo(std::size_t count) {
  std::vector<std::size_t> slots(count);
  std::iota(slots.begin(), slots.end(), 2);
  return slots;
}

TEST(UpdaterInterfaceOrderTest, KosHelper) {
  const std::vector<std::size_t> slots = {
      SlotOf(&IKOSHelper::Chmod),
      SlotOf(&IKOSHelper::DirExist),
      SlotOf(&IKOSHelper::FileExist),
      SlotOf(&IKOSHelper::FileMtime),
      SlotOf(&IKOSHelper::GetBuildNumber),
      SlotOf(&IKOSHelper::GetMajorVersion),
      SlotOf(&IKOSHelper::GetMinorVersion),
      SlotOf(&IKOSHelper::GetPackageNameFromPath),
      SlotOf(&IKOSHelper::GetPackUpdateServerUrl),
      SlotOf(&IKOSHelper::GetTimezone),
      SlotOf(&IKOSHelper::GetUnique),
      SlotOf(&IKOSHelper::GetUserId),
      SlotOf(&IKOSHelper::GetVersion),
      SlotOf(&IKOSHelper::GetVersionFromPath),
  };
  EXPECT_EQ(slots, SlotsFromTwo(14));
}

TEST(UpdaterInterfaceOrderTest, AccountHelper) {
  EXPECT_EQ((std::vector{SlotOf(&IOAHelper::GetIdToken), SlotOf(&IOAHelper::IsLoggedIn)}), SlotsFromTwo(2));
}

TEST(UpdaterInterfaceOrderTest, PackHandler) {
  const std::vector<std::size_t> slots = {
      SlotOf(Overload<bool() const>(&IPackHandler::CheckNewVersion)),
      SlotOf(Overload<bool(const Json::Value&) const>(&IPackHandler::CheckNewVersion)),
      SlotOf(&IPackHandler::GetDownloadVersion),
      SlotOf(&IPackHandler::GetDownloadLink),
      SlotOf(&IPackHandler::GetDownloadChecksum),
      SlotOf(&IPackHandler::GetDownloadPath),
      SlotOf(&IPackHandler::Download),
      SlotOf(&IPackHandler::DownloadWithProgress),
      SlotOf(&IPackHandler::Install),
      SlotOf(&IPackHandler::Uninstall),
      SlotOf(&IPackHandler::CreateDownloadDirectory),
      SlotOf(&IPackHandler::RemoveDownloadDirectory),
  };
  EXPECT_EQ(slots, SlotsFromTwo(12));
}

TEST(UpdaterInterfaceOrderTest, PackManager) {
  const std::vector<std::size_t> slots = {
      SlotOf(&IPackManager::CheckNewPack),
      SlotOf(&IPackManager::DownloadAndInstall),
      SlotOf(&IPackManager::Download),
      SlotOf(&IPackManager::Install),
      SlotOf(&IPackManager::GetPackUpdatePolicy),
      SlotOf(&IPackManager::SetPackUpdatePolicy),
      SlotOf(&IPackManager::IsAacNeeded),
      SlotOf(&IPackManager::IsHevcNeeded),
      SlotOf(&IPackManager::CheckPackExists),
      SlotOf(&IPackManager::GetPackLastUpdateTime),
      SlotOf(&IPackManager::RemovePack),
      SlotOf(&IPackManager::IsCodecRequested),
      SlotOf(&IPackManager::HasAacCurrently),
      SlotOf(&IPackManager::HasHevcCurrently),
  };
  EXPECT_EQ(slots, SlotsFromTwo(14));
}

TEST(UpdaterInterfaceOrderTest, PackStatusHelper) {
  const std::vector<std::size_t> slots = {
      SlotOf(&IPackStatusHelper::GetPackStatus),
      SlotOf(&IPackStatusHelper::GetPackNewName),
      SlotOf(&IPackStatusHelper::GetPackNewVersion),
      SlotOf(&IPackStatusHelper::GetPackDownloadProgress),
      SlotOf(&IPackStatusHelper::GetInstallProgress),
      SlotOf(&IPackStatusHelper::SetAsNeedDownload),
      SlotOf(Overload<void() const>(&IPackStatusHelper::SetAsDownloading)),
      SlotOf(&IPackStatusHelper::SetAsDownloadFailed),
      SlotOf(&IPackStatusHelper::SetAsNeedInstall),
      SlotOf(Overload<void() const>(&IPackStatusHelper::SetAsInstalling)),
      SlotOf(&IPackStatusHelper::SetAsInstallFailed),
      SlotOf(Overload<void() const>(&IPackStatusHelper::SetAsDownloadInstalling)),
      SlotOf(&IPackStatusHelper::SetAsDownloadInstallFailed),
      SlotOf(&IPackStatusHelper::SetAsUpToDate),
      SlotOf(Overload<void(long, long) const>(&IPackStatusHelper::SetAsDownloading)),
      SlotOf(Overload<void(long, long) const>(&IPackStatusHelper::SetAsDownloadInstalling)),
      SlotOf(Overload<void(InstallStep) const>(&IPackStatusHelper::SetAsInstalling)),
      SlotOf(Overload<void(InstallStep) const>(&IPackStatusHelper::SetAsDownloadInstalling)),
      SlotOf(&IPackStatusHelper::CanDoDownload),
      SlotOf(&IPackStatusHelper::CanDoInstall),
      SlotOf(&IPackStatusHelper::CanDoDownloadInstall),
  };
  EXPECT_EQ(slots, SlotsFromTwo(21));
}

TEST(UpdaterInterfaceOrderTest, PluginNotifier) {
  EXPECT_EQ((std::vector{SlotOf(&IPluginNotifier::NotifyPlugin), SlotOf(&IPluginNotifier::GetAppId)}), SlotsFromTwo(2));
}

// What the numbers are worth: the entry of that number in an object's own table is the operation, called as a program
// that knows nothing but the number would call it.
TEST(UpdaterInterfaceOrderTest, TheSlotOfAnOperationIsWhereCallersFindIt) {
  struct Recorder : IOAHelper {
    std::string GetIdToken() const override { return "token"; }
    bool IsLoggedIn() const override { return true; }
  };
  const Recorder recorder;
  const IOAHelper* helper = &recorder;
  using IsLoggedIn = bool (*)(const IOAHelper*);
  const IsLoggedIn* table = nullptr;
  std::memcpy(&table, static_cast<const void*>(helper), sizeof table);
  EXPECT_TRUE(table[3](helper));
}

}  // namespace
}  // namespace orbamira::updater
