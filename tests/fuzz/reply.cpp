// The update server's reply: whatever it holds, a check for a new pack ends with an answer and a whole record, and
// nothing but the file's own digest ever verifies. Nothing is sent: the session's answer is the input.

#include <cpr/cpr.h>
#include <json/value.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/orba_zelo_wrapper.h"
#include "platform/version.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"
#include "updater/kos_helper.h"
#include "updater/pack_handler.h"
#include "updater/pack_manager.h"
#include "updater/pack_status_helper.h"

namespace {

using orbamira::fuzz::Require;
using orbamira::updater::KOSHelper;
using orbamira::updater::PackHandler;
using orbamira::updater::PackManager;
using orbamira::updater::PackStatusHelper;

namespace keys = orbamira::webapi::param;

constexpr const char* kInstalledVersion = "1.0";
constexpr const char* kPackage = "orbamira\n";
constexpr const char* kPackageSha256 = "2b79f22455be0c5d84f69a2f8272a92fb166da07ba0ac556f8c95a54200ef6bc";

std::string reply;
cpr::WriteCallback take;

/// Every setting and every version is there.
class SettledCore : public orbamira::wrapper::IOrbaCoreWrapper {
 public:
  int RunCommand(const std::vector<std::string>& /*args*/) override { return 0; }
  std::string GetKeyValue(const std::string& /*file*/, const std::string& /*key*/) override {
    return kInstalledVersion;
  }
};

class MemoryStore : public orbamira::store::IKeyValueStore {
 public:
  bool Has(const std::string& key) override { return values_.contains(key); }
  std::string Get(const std::string& key) override { return values_[key]; }
  void Set(const std::string& key, const std::string& value) override { values_[key] = value; }
  void Clear() override { values_.clear(); }

 private:
  std::map<std::string, std::string> values_;
};

bool IsDigestOfPackage(std::string checksum) {
  std::transform(checksum.begin(), checksum.end(), checksum.begin(),
                 [](unsigned char digit) { return static_cast<char>(std::tolower(digit)); });
  return checksum == kPackageSha256;
}

void CheckOffer(const PackManager& manager, const PackHandler& handler, bool with_aac) {
  Json::Value offer;
  try {
    if (!manager.FetchDownloadInfo(with_aac, offer)) {
      return;
    }
  } catch (const Json::Exception&) {
    return;
  }
  Require(!offer.isNull(), "an offer that was found is something");
  try {
    handler.GetDownloadVersion(offer);
    handler.GetDownloadLink(offer);
    const std::string checksum = handler.GetDownloadChecksum(offer);
    Require(manager.VerifyChecksum(offer) == IsDigestOfPackage(checksum), "only the file's digest verifies");
  } catch (const Json::LogicError&) {
  }
}

void CheckRecord(const PackManager& manager, MemoryStore& store) {
  if (!manager.CheckNewPack()) {
    Require(!store.Has(keys::kStatus), "a check without an offer records nothing");
    return;
  }
  Require(store.Get(keys::kStatus) == "need_download", "an offer waits for its download");
  Require(orbamira::IsNewVersion(kInstalledVersion, store.Get(keys::kNewVersion)), "only a newer version is offered");
}

}  // namespace

// In place of the request.
void cpr::Session::SetWriteCallback(const WriteCallback& write) { take = write; }

cpr::Response cpr::Session::Get() {
  take(reply);
  cpr::Response response;
  response.status_code = 200;
  return response;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  reply = orbamira::fuzz::Text(data, size);
  static const bool downloaded = [] {
    orbamira::test::WriteFile(orbamira::path::kDownloadedOpkPath, kPackage);
    return true;
  }();
  static_cast<void>(downloaded);

  const auto core = std::make_shared<SettledCore>();
  const auto pkg = std::make_shared<orbamira::wrapper::OrbaPkgWrapper>();
  const auto sdk = std::make_shared<orbamira::wrapper::OrbaSDKWrapper>();
  const auto zelo = std::make_shared<orbamira::wrapper::OrbaZeloWrapper>();
  const auto facts = std::make_shared<KOSHelper>(core, zelo);
  const auto store = std::make_shared<MemoryStore>();
  const auto status = std::make_shared<PackStatusHelper>(store);
  const auto handler = std::make_shared<PackHandler>(nullptr, facts, core, sdk);
  const PackManager manager(core, pkg, facts, status, handler, nullptr);

  CheckOffer(manager, *handler, false);
  CheckOffer(manager, *handler, true);
  CheckRecord(manager, *store);
  return 0;
}
