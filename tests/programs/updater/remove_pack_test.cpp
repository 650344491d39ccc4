#include <gtest/gtest.h>

#include <filesystem>

#include "platform/constants.h"
#include "tests/support/test_root.h"
#include "updater/pack_manager.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

TEST(RemovePackTest, RemovesARealFolderAndThenNone) {
  fs::create_directories(fs::path(path::kRmPath).parent_path());
  fs::create_symlink(ORBA_REMOVE, path::kRmPath);
  test::WriteFile(path::kPackInfoPath, "version=1\n");
  const auto manager = PackManager::Create();
  ASSERT_NE(manager, nullptr);
  EXPECT_TRUE(manager->RemovePack());
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));
  EXPECT_TRUE(manager->RemovePack());
}

}  // namespace
}  // namespace orbamira::updater
