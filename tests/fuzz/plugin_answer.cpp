// The answer of the program that lists the plugins' ids: whatever it wrote, the ids are read or the JSON library's
// exception says why not.

#include <json/value.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/orba_core_wrapper.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"
#include "updater/plugin_notifier.h"

namespace {

using orbamira::fuzz::Require;

/// Stands for the program: writes the answer into the file that it is given.
class AnsweringCore : public orbamira::wrapper::IOrbaCoreWrapper {
 public:
  explicit AnsweringCore(std::string answer) : answer_(std::move(answer)) {}

  int RunCommand(const std::vector<std::string>& args) override {
    orbamira::test::WriteFile(args.at(1), answer_);
    return 0;
  }
  std::string GetKeyValue(const std::string& /*file*/, const std::string& /*key*/) override { return ""; }

 private:
  std::string answer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string answer = orbamira::fuzz::Text(data, size);
  const orbamira::updater::PluginNotifier notifier(std::make_shared<AnsweringCore>(answer));
  try {
    const std::vector<std::string> ids = notifier.GetAppId();
    Require(ids.size() <= answer.size() / 2, "every id takes a byte and what parts it from the next");
    Require(!std::filesystem::exists(orbamira::path::kTempPluginAppIdPath), "an answer that was read is removed");
  } catch (const Json::Exception&) {
    Require(orbamira::test::ReadFile(orbamira::path::kTempPluginAppIdPath) == answer,
            "an answer that cannot be used stays to be looked at");
  }
  return 0;
}
