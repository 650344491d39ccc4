#include "platform/orba_sdk_wrapper.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/forked.h"
#include "tests/support/test_root.h"

namespace orbamira::wrapper {
namespace {

namespace fs = std::filesystem;

// A chroot without /proc, where the folder was made and then taken for a failure.
TEST(OrbaSDKWrapperTest, MakeDirectoryDoesNotNeedProc) {
  const test::TempDir folder;
  test::Forked inside([&] {
    if (!test::EnterRoot(folder.path())) {
      return test::kMayNotUnshare;
    }
    umask(0077);
    return -OrbaSDKWrapper().MakeDirectory("/outer/inner");
  });
  const int result = inside.Wait();
  if (result == test::kMayNotUnshare) {
    GTEST_SKIP() << "may not change the root";
  }
  EXPECT_EQ(result, 0);
  for (const char* made : {"outer", "outer/inner"}) {
    EXPECT_EQ(fs::status(folder.path() / made).permissions(), fs::perms(0755)) << made;
  }
}

}  // namespace
}  // namespace orbamira::wrapper
