// The status file, which any process may have written: whatever it holds, the store and the status helper over it keep
// working, and nothing of the file is lost.

#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "platform/constants.h"
#include "platform/key_value_store.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"
#include "updater/pack_status_helper.h"

namespace {

using orbamira::fuzz::Require;
using orbamira::store::FileKeyValueStore;
using orbamira::store::IKeyValueStore;
using orbamira::test::ReadFile;
using orbamira::updater::PackStatusHelper;

namespace fs = std::filesystem;
namespace keys = orbamira::webapi::param;

std::string BrokenFile() { return std::string(orbamira::path::kPackStatusFile) + ".broken"; }

std::shared_ptr<IKeyValueStore> Open() {
  std::shared_ptr<IKeyValueStore> store = FileKeyValueStore::Create(orbamira::path::kPackStatusFile);
  Require(store != nullptr, "a store can be had over any file");
  return store;
}

void CheckFileIsKept(const std::string& content) {
  if (fs::exists(BrokenFile())) {
    Require(ReadFile(BrokenFile()) == content, "a broken file is set aside with every byte");
    fs::remove(BrokenFile());
  } else {
    Require(ReadFile(orbamira::path::kPackStatusFile) == content, "a good file stays as it is");
  }
}

void CheckQueries(const std::shared_ptr<IKeyValueStore>& store) {
  try {
    PackStatusHelper helper(store);
    const int status = helper.GetPackStatus();
    Require(status >= 0 && static_cast<std::size_t>(status) < orbamira::updater::kPackStatusTexts.size(),
            "a status that is read has a text");
    Require(helper.GetPackNewName() == store->Get(keys::kNewPackName), "the name is taken as it is");
    Require(helper.GetPackNewVersion() == store->Get(keys::kNewVersion), "the version is taken as it is");
    helper.GetPackDownloadProgress();
    helper.GetInstallProgress();
  } catch (const std::out_of_range& error) {
    const std::string text = error.what();
    Require(text == "_Map_base::at" || text == "stoll", "an unknown text or a size too great");
  } catch (const std::invalid_argument& error) {
    Require(std::string(error.what()) == "stoll", "a size that is no number");
  }
}

void CheckSet(const std::shared_ptr<IKeyValueStore>& store, const std::string& key, const std::string& value) {
  std::map<std::string, std::string> expected;
  for (const char* other : {keys::kStatus, keys::kNewPackName, keys::kNewVersion, keys::kDownloadSizeNow}) {
    if (store->Has(other)) {
      expected[other] = store->Get(other);
    }
  }
  store->Set(key, value);
  expected[key] = value;
  const auto reopened = Open();
  for (const auto& [name, text] : expected) {
    Require(reopened->Has(name) && reopened->Get(name) == text, "what was stored comes back, and the rest stays");
  }
}

void CheckTransition(const std::string& version) {
  PackStatusHelper(Open()).SetAsNeedDownload(version);
  PackStatusHelper helper(Open());
  Require(helper.GetPackStatus() == orbamira::updater::kStatusNeedDownload, "a transition is read back");
  Require(helper.GetPackNewVersion() == version, "a version is read back, whatever its bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string content = orbamira::fuzz::Text(data, size);
  std::string value = content;
  const std::string key = orbamira::fuzz::TakeLine(value);

  orbamira::test::WriteFile(orbamira::path::kPackStatusFile, content);
  const auto store = Open();
  CheckFileIsKept(content);
  CheckQueries(store);
  CheckSet(store, key, value);
  CheckTransition(value);
  store->Clear();
  Require(!store->Has(key) && !Open()->Has(key), "a cleared store is empty");
  Require(!fs::exists(BrokenFile()), "what the store writes is a store");
  fs::remove(orbamira::path::kPackStatusFile);
  return 0;
}
