#include "platform/orba_zelo_wrapper.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/constants.h"
#include "tests/support/test_root.h"

namespace orbamira::wrapper {
namespace {

namespace fs = std::filesystem;

std::string ZoneBehind(const std::string& target) {
  fs::create_directories(fs::path(path::kLocaltime).parent_path());
  fs::remove(path::kLocaltime);
  fs::create_symlink(target, path::kLocaltime);
  return OrbaZeloWrapper().GetTimezone();
}

void WriteAccount(const std::string& text) {
  test::WriteFile(path::kAccountFile, text);
  fs::permissions(path::kAccountFile, fs::perms::owner_read | fs::perms::owner_write);
}

TEST(OrbaZeloWrapperTest, GetTimezoneIsTheZoneThatLocaltimePointsTo) {
  EXPECT_EQ(ZoneBehind("/usr/share/zoneinfo/Europe/Vienna"), "Europe/Vienna");
  EXPECT_EQ(ZoneBehind("../usr/share/zoneinfo/UTC"), "UTC");
  EXPECT_EQ(ZoneBehind("/usr/share/zoneinfo/America/Argentina/Ushuaia"), "America/Argentina/Ushuaia");
}

TEST(OrbaZeloWrapperTest, GetTimezoneDropsTheVariantOfTheZones) {
  EXPECT_EQ(ZoneBehind("/usr/share/zoneinfo/posix/Europe/Vienna"), "Europe/Vienna");
  EXPECT_EQ(ZoneBehind("/usr/share/zoneinfo/right/Europe/Vienna"), "Europe/Vienna");
}

TEST(OrbaZeloWrapperTest, GetTimezoneIsEmptyWhenTheLinkLeadsElsewhere) {
  EXPECT_EQ(ZoneBehind("/etc/somewhere"), "");
  EXPECT_EQ(ZoneBehind("/usr/share/zoneinfo/"), "");
}

TEST(OrbaZeloWrapperTest, GetTimezoneIsEmptyWhenLocaltimeIsNoLink) {
  fs::remove(path::kLocaltime);
  EXPECT_EQ(OrbaZeloWrapper().GetTimezone(), "");
  test::WriteFile(path::kLocaltime, "TZif2");
  EXPECT_EQ(OrbaZeloWrapper().GetTimezone(), "");
}

TEST(OrbaZeloWrapperTest, GetUserIdIsTheAccountsUser) {
  WriteAccount(R"({"user_id": "4711"})");
  EXPECT_EQ(OrbaZeloWrapper().GetUserId(), "4711");
}

TEST(OrbaZeloWrapperTest, GetUserIdIsEmptyWithoutAnAccount) {
  fs::remove(path::kAccountFile);
  EXPECT_EQ(OrbaZeloWrapper().GetUserId(), "");
}

TEST(OrbaZeloWrapperTest, GetUserIdIsEmptyWhenTheAccountCannotBeRead) {
  WriteAccount("{");
  EXPECT_EQ(OrbaZeloWrapper().GetUserId(), "");
}

}  // namespace
}  // namespace orbamira::wrapper
