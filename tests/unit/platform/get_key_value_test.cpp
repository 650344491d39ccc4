#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "platform/orba_core_wrapper.h"
#include "tests/support/log_capture.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::wrapper {
namespace {

namespace fs = std::filesystem;

using namespace std::string_literals;  // texts that hold a NUL

class OrbaCoreWrapperGetKeyValueTest : public testing::Test {
 protected:
  std::string Get(const std::string& text, const std::string& key) {
    test::WriteFile(file_, text);
    return wrapper_.GetKeyValue(file_, key);
  }

  test::TempDir folder_;
  const std::string file_ = folder_.File("settings");
  OrbaCoreWrapper wrapper_;
};

TEST_F(OrbaCoreWrapperGetKeyValueTest, GivesTheValueOfTheKey) {
  EXPECT_EQ(Get("a=1\nb=2\nc=3\n", "b"), "2");
  EXPECT_EQ(Get("a=1\nb=2", "b"), "2");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, GivesNothingWhenTheKeyIsMissing) {
  EXPECT_EQ(Get("a=1\n", "b"), "");
  EXPECT_EQ(Get("", "b"), "");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, IgnoresAFileThatEveryoneMayWrite) {
  ASSERT_EQ(Get("a=1", "a"), "1");
  std::filesystem::permissions(file_, std::filesystem::perms(0666));
  test::LogCapture::Clear();
  EXPECT_EQ(wrapper_.GetKeyValue(file_, "a"), "");
  EXPECT_THAT(test::LogCapture::Lines(), testing::ElementsAre(test::ErrorLine(
                                             "settings_file.cpp", "Ignored " + file_ + ": everyone may write it")));
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, MatchesTheWholeKey) {
  EXPECT_EQ(Get("keys=1\nmykey=2\nKEY=3\nkey=4\n", "key"), "4");
  EXPECT_EQ(Get("key\nkey 1\n", "key"), "");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, TakesTheFirstOfSeveral) {
  EXPECT_EQ(Get("a=1\na=2\n", "a"), "1");
  EXPECT_EQ(Get("a=\na=2\n", "a"), "");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, DropsBlanksAroundKeyAndValue) {
  EXPECT_EQ(Get(" \ta\t =\t two words \t\n", "a"), "two words");
  EXPECT_EQ(Get("a=   \n", "a"), "");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, DropsOnePairOfQuotes) {
  EXPECT_EQ(Get("a=\"1.2\"\n", "a"), "1.2");
  EXPECT_EQ(Get("a= \" kept \" \n", "a"), " kept ");
  EXPECT_EQ(Get("a=\"\"x\"\"\n", "a"), "\"x\"");
  EXPECT_EQ(Get("a=\"\n", "a"), "\"");
  EXPECT_EQ(Get("a=\"open\n", "a"), "\"open");
  EXPECT_EQ(Get("a=\"\"\n", "a"), "");
  EXPECT_EQ(Get("a='1'\n", "a"), "'1'");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, KeepsEverythingAfterTheFirstEqualsSign) {
  EXPECT_EQ(Get("a=http://host/?b=c&d==\n", "a"), "http://host/?b=c&d==");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, DropsACarriageReturnBeforeTheLinesEnd) {
  EXPECT_EQ(Get("a=\"1\"\r\nb=2\r\n", "a"), "1");
  EXPECT_EQ(Get("b=2\r", "b"), "2");
  EXPECT_EQ(Get("b\r=1\nb=2\n", "b"), "2");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, IgnoresComments) {
  EXPECT_EQ(Get("#a=1\na=2 # kept\n", "a"), "2 # kept");
  EXPECT_EQ(Get("#a=1\n", "#a"), "");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, TakesBinaryContentAsItIs) {
  const std::string text = "\0\xFF=x\n=\n\0\0\na=1\0002\nb=3"s;
  EXPECT_EQ(Get(text, "a"), "1\0002"s);
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, LooksAtTheFirstMebibyteOnly) {
  const std::string filler(1024 * 1024 - 4, '#');
  EXPECT_EQ(Get("k=v\n" + filler, "k"), "v");
  EXPECT_EQ(Get(filler.substr(4) + "\nk=v\nlater=1\n", "later"), "");
  EXPECT_EQ(Get(filler.substr(4) + "\nk=v\nlater=1\n", "k"), "v");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, GivesNoPartOfAValue) {
  EXPECT_EQ(Get(std::string(1024 * 1024 - 10, '#') + "\nkey=a long value\n", "key"), "");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, GivesNothingForWhatIsNoReadableFile) {
  EXPECT_EQ(wrapper_.GetKeyValue(folder_.File("missing"), "a"), "");
  EXPECT_EQ(wrapper_.GetKeyValue(folder_.path(), "a"), "");
  EXPECT_EQ(wrapper_.GetKeyValue("", "a"), "");
  EXPECT_EQ(wrapper_.GetKeyValue("/proc/self/mem", "a"), "");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, DoesNotWaitAtAPipe) {
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  EXPECT_EQ(wrapper_.GetKeyValue(file_, "a"), "");
}

TEST_F(OrbaCoreWrapperGetKeyValueTest, GivesNothingForAFileThatIsClosedToUs) {
  test::WriteFile(file_, "a=1\n");
  fs::permissions(test::Root(), fs::perms(0711));
  fs::permissions(folder_.path(), fs::perms(0711));
  fs::permissions(file_, fs::perms::none);
  const test::OrdinaryUser user;
  EXPECT_EQ(wrapper_.GetKeyValue(file_, "a"), "");
}

}  // namespace
}  // namespace orbamira::wrapper
