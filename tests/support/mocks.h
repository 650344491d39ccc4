#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/cpr_session.h"
#include "platform/download_wrapper.h"
#include "platform/key_value_store.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/orba_zelo_wrapper.h"
#include "updater/kos_helper.h"
#include "updater/pack_handler.h"
#include "updater/pack_status_helper.h"
#include "updater/plugin_notifier.h"

/// Mocks of every interface that the updater's classes take as a collaborator. Use them in StrictMock, so that a call
/// that nobody expects fails the test.
namespace orbamira::test {

class MockCore : public wrapper::IOrbaCoreWrapper {
 public:
  MOCK_METHOD(int, RunCommand, (const std::vector<std::string>&), (override));
  MOCK_METHOD(std::string, GetKeyValue, (const std::string&, const std::string&), (override));
};

class MockPkg : public wrapper::IOrbaPkgWrapper {
 public:
  MOCK_METHOD(bool, CheckFileChecksum, (const std::string&, const std::string&), (override));
};

class MockSdk : public wrapper::IOrbaSDKWrapper {
 public:
  MOCK_METHOD(int, MakeDirectory, (const std::string&), (override));
};

class MockZelo : public wrapper::IOrbaZeloWrapper {
 public:
  MOCK_METHOD(std::string, GetTimezone, (), (const, override));
  MOCK_METHOD(std::string, GetUserId, (), (const, override));
};

class MockSession : public wrapper::ICprSession {
 public:
  MOCK_METHOD(cpr::Response, DownloadToFile, (std::ofstream&), (override));
  MOCK_METHOD(void, SetUrl, (const cpr::Url&), (override));
};

class MockDownload : public wrapper::DownloadWrapper {
 public:
  using Progress = std::function<void(long, long)>;

  MOCK_METHOD(int, DownloadToFile, (std::ofstream&), (override));
  MOCK_METHOD(void, SetUrl, (const std::string&), (override));
  MOCK_METHOD(void, SetProgressCallback, (Progress&), (override));
};

class MockStore : public store::IKeyValueStore {
 public:
  MOCK_METHOD(bool, Has, (const std::string&), (override));
  MOCK_METHOD(std::string, Get, (const std::string&), (override));
  MOCK_METHOD(void, Set, (const std::string&, const std::string&), (override));
  MOCK_METHOD(void, Clear, (), (override));
};

class MockKosHelper : public updater::IKOSHelper {
 public:
  MOCK_METHOD(bool, Chmod, (const std::string&, unsigned int), (const, override));
  MOCK_METHOD(bool, DirExist, (const std::string&), (const, override));
  MOCK_METHOD(bool, FileExist, (const std::string&), (const, override));
  MOCK_METHOD(time_t, FileMtime, (const std::string&), (const, override));
  MOCK_METHOD(std::string, GetBuildNumber, (), (const, override));
  MOCK_METHOD(std::string, GetMajorVersion, (), (const, override));
  MOCK_METHOD(std::string, GetMinorVersion, (), (const, override));
  MOCK_METHOD(std::string, GetPackageNameFromPath, (const std::string&), (const, override));
  MOCK_METHOD(std::string, GetPackUpdateServerUrl, (), (const, override));
  MOCK_METHOD(std::string, GetTimezone, (), (const, override));
  MOCK_METHOD(std::string, GetUnique, (), (const, override));
  MOCK_METHOD(std::string, GetUserId, (), (const, override));
  MOCK_METHOD(std::string, GetVersion, (), (const, override));
  MOCK_METHOD(std::string, GetVersionFromPath, (const std::string&), (const, override));
};

class MockStatusHelper : public updater::IPackStatusHelper {
 public:
  using Progress = std::pair<std::int32_t, std::int32_t>;

  MOCK_METHOD(updater::PackStatus, GetPackStatus, (), (override));
  MOCK_METHOD(std::string, GetPackNewName, (), (override));
  MOCK_METHOD(std::string, GetPackNewVersion, (), (override));
  MOCK_METHOD(Progress, GetPackDownloadProgress, (), (override));
  MOCK_METHOD(updater::InstallStep, GetInstallProgress, (), (override));
  MOCK_METHOD(void, SetAsNeedDownload, (const std::string&), (const, override));
  MOCK_METHOD(void, SetAsDownloading, (), (const, override));
  MOCK_METHOD(void, SetAsDownloadFailed, (), (const, override));
  MOCK_METHOD(void, SetAsNeedInstall, (const std::string&, const std::string&), (const, override));
  MOCK_METHOD(void, SetAsInstalling, (), (const, override));
  MOCK_METHOD(void, SetAsInstallFailed, (const std::string&, const std::string&), (const, override));
  MOCK_METHOD(void, SetAsDownloadInstalling, (), (const, override));
  MOCK_METHOD(void, SetAsDownloadInstallFailed, (), (const, override));
  MOCK_METHOD(void, SetAsUpToDate, (), (const, override));
  MOCK_METHOD(void, SetAsDownloading, (long, long), (const, override));
  MOCK_METHOD(void, SetAsDownloadInstalling, (long, long), (const, override));
  MOCK_METHOD(void, SetAsInstalling, (updater::InstallStep), (const, override));
  MOCK_METHOD(void, SetAsDownloadInstalling, (updater::InstallStep), (const, override));
  MOCK_METHOD(bool, CanDoDownload, (updater::PackStatus), (const, override));
  MOCK_METHOD(bool, CanDoInstall, (updater::PackStatus), (const, override));
  MOCK_METHOD(bool, CanDoDownloadInstall, (updater::PackStatus), (const, override));
};

class MockPackHandler : public updater::IPackHandler {
 public:
  using Progress = std::function<void(long, long)>;

  MOCK_METHOD(bool, CheckNewVersion, (), (const, override));
  MOCK_METHOD(bool, CheckNewVersion, (const Json::Value&), (const, override));
  MOCK_METHOD(std::string, GetDownloadVersion, (const Json::Value&), (const, override));
  MOCK_METHOD(std::string, GetDownloadLink, (const Json::Value&), (const, override));
  MOCK_METHOD(std::string, GetDownloadChecksum, (const Json::Value&), (const, override));
  MOCK_METHOD(std::string, GetDownloadPath, (), (const, override));
  MOCK_METHOD(bool, Download, (const std::string&, const std::string&), (override));
  MOCK_METHOD(bool, DownloadWithProgress, (const std::string&, const std::string&, Progress&), (override));
  MOCK_METHOD(bool, Install, (const std::string&), (override));
  MOCK_METHOD(bool, Uninstall, (), (override));
  MOCK_METHOD(bool, CreateDownloadDirectory, (), (const, override));
  MOCK_METHOD(bool, RemoveDownloadDirectory, (), (const, override));
};

class MockNotifier : public updater::IPluginNotifier {
 public:
  MOCK_METHOD(bool, NotifyPlugin,
              (updater::NotifyPluginEvent, updater::NotifyPluginTiming, const std::string&, const std::string&,
               updater::NotifyPluginStatus),
              (const, override));
  MOCK_METHOD(std::vector<std::string>, GetAppId, (), (const, override));
};

/// A mock that adds its name to the list when it is destroyed.
template <typename Mock>
std::shared_ptr<Mock> Noted(std::vector<std::string>& destroyed, const std::string& name) {
  return {new testing::StrictMock<Mock>, [&destroyed, name](Mock* mock) {
            destroyed.push_back(name);
            delete mock;
          }};
}

}  // namespace orbamira::test
