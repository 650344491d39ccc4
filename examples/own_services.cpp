// Asks the update server for a new pack on an appliance that keeps its settings, its account and its records in its own
// way: whatever the library needs of a system stands behind an interface, and a maker puts his own behind it.
//
// usage: own_services SERVER-ADDRESS

#include <orbamira/updater/pack_manager.h>

#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/constants.h"
#include "platform/cpr_session.h"
#include "platform/key_value_store.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/orba_zelo_wrapper.h"
#include "updater/kos_helper.h"
#include "updater/pack_handler.h"
#include "updater/pack_status_helper.h"
#include "updater/plugin_notifier.h"

namespace {

using namespace orbamira;
using namespace orbamira::updater;

// Settings that come from the appliance's own database. Programs are run as the library would run them, and a file that
// belongs to a pack is read as a file: for both the platform's implementation is the base.
class ApplianceCore : public wrapper::OrbaCoreWrapper {
 public:
  explicit ApplianceCore(std::map<std::string, std::string> database) : database_(std::move(database)) {}

  std::string GetKeyValue(const std::string& file, const std::string& key) override {
    if (file == path::kPackInfoPath || file == kPackageInfoPath) {
      return OrbaCoreWrapper::GetKeyValue(file, key);
    }
    const auto entry = database_.find(key);
    return entry != database_.end() ? entry->second : "";
  }

 private:
  const std::map<std::string, std::string> database_;
};

// The owner's account, wherever the appliance keeps it.
class ApplianceAccount : public wrapper::IOrbaZeloWrapper {
 public:
  std::string GetTimezone() const override { return "Europe/Vienna"; }
  std::string GetUserId() const override { return "owner-7"; }
};

// Where the recorded status goes. This one forgets it with the process; a real one answers to IKeyValueStore's promise
// that what Set() stored survives a power cut.
class ApplianceRecords : public store::IKeyValueStore {
 public:
  bool Has(const std::string& key) override { return records_.count(key) != 0; }
  std::string Get(const std::string& key) override { return Has(key) ? records_[key] : ""; }
  void Set(const std::string& key, const std::string& value) override { records_[key] = value; }
  void Clear() override { records_.clear(); }

 private:
  std::map<std::string, std::string> records_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: own_services SERVER-ADDRESS\n";
    return 64;
  }
  const auto core = std::make_shared<ApplianceCore>(std::map<std::string, std::string>{
      {common::kPackUpdateServer, argv[1]},
      {common::kUnique, "example-nas"},
      {common::kMajorVersion, "7"},
      {common::kMinorVersion, "2"},
      {common::kBuildNumber, "64570"},
  });

  // The same parts that the Create() functions put together, over the services above where there are any.
  const auto facts = std::make_shared<KOSHelper>(core, std::make_shared<ApplianceAccount>());
  const auto status = std::make_shared<PackStatusHelper>(std::make_shared<ApplianceRecords>());
  const auto handler = std::make_shared<PackHandler>(wrapper::CprSession::Create(), facts, core,
                                                     std::make_shared<wrapper::OrbaSDKWrapper>());
  const PackManager manager(core, std::make_shared<wrapper::OrbaPkgWrapper>(), facts, status, handler,
                            std::make_shared<PluginNotifier>(core));

  std::cout << "appliance: " << facts->GetUnique() << ", version " << facts->GetVersion() << '\n'
            << "owner: " << facts->GetUserId() << " in " << facts->GetTimezone() << '\n';
  if (!manager.CheckNewPack()) {
    std::cout << "no new pack\n";
    return 0;
  }
  status->GetPackStatus();  // the queries answer from the last read
  std::cout << "new pack: version " << status->GetPackNewVersion() << '\n';
  return 0;
}
