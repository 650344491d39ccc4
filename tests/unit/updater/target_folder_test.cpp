// In a build whose folder of packs ends in a slash.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/constants.h"
#include "updater/pack_handler.h"

namespace orbamira::updater {
namespace {

TEST(TargetFolderTest, GetInfoPathKeepsADoubledSlash) {
  ASSERT_EQ(std::string(kTargetFolder).back(), '/');
  const PackHandler handler(nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(handler.GetInfoPath(), std::string(kTargetFolder) + "/" + kPackFolderName + "/INFO");
}

}  // namespace
}  // namespace orbamira::updater
