// The codec-requirements file, which other packages write: whatever it holds, the question is answered or fails with
// the JSON library's exception, and the file's lock is given back.

#include <fcntl.h>
#include <json/value.h>
#include <sys/file.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/constants.h"
#include "platform/posix/unique_fd.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"
#include "updater/kos_helper.h"
#include "updater/pack_manager.h"

namespace {

using orbamira::fuzz::Require;
using orbamira::updater::PackManager;

// Empty when the file's form is an error.
template <typename Question>
std::optional<bool> Ask(Question question) {
  try {
    return question();
  } catch (const Json::Exception&) {
    return std::nullopt;
  }
}

void CheckLockIsFree() {
  const orbamira::UniqueFd lock = orbamira::OpenFile(orbamira::path::kCodecRequirementsLock, O_RDONLY);
  Require(lock.valid() && flock(lock.get(), LOCK_EX | LOCK_NB) == 0, "the lock is given back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string content = orbamira::fuzz::Text(data, size);
  orbamira::test::WriteFile(orbamira::path::kCodecRequirementsPath, content);
  const PackManager manager(nullptr, nullptr, orbamira::updater::KOSHelper::Create(), nullptr, nullptr, nullptr);

  const std::optional<bool> requested = Ask([&] { return manager.IsCodecRequested(orbamira::kAac); });
  CheckLockIsFree();
  Require(Ask([&] { return manager.IsAacNeeded(); }) == requested,
          "a request is a need while the pack lacks the codec");
  Require(orbamira::test::ReadFile(orbamira::path::kCodecRequirementsPath) == content, "the file is only read");
  return 0;
}
