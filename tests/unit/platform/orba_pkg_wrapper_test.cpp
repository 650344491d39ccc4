#include "platform/orba_pkg_wrapper.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "tests/support/test_root.h"

namespace orbamira::wrapper {
namespace {

// The examples of FIPS 180: "abc" and the empty text.
const std::string kSha256OfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string kSha512OfAbc =
    "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
    "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f";
const std::string kSha256OfNothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
const std::string kSha256OfAMillionA = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

std::string Upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

class OrbaPkgWrapperTest : public testing::Test {
 protected:
  OrbaPkgWrapperTest() { test::WriteFile(file_, "abc"); }

  bool Check(const std::string& checksum) { return wrapper_.CheckFileChecksum(file_, checksum); }

  test::TempDir folder_;
  const std::string file_ = folder_.File("file");
  OrbaPkgWrapper wrapper_;
};

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumAcceptsSha256) { EXPECT_TRUE(Check(kSha256OfAbc)); }

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumAcceptsSha512) { EXPECT_TRUE(Check(kSha512OfAbc)); }

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumAcceptsEitherCase) {
  EXPECT_TRUE(Check(Upper(kSha256OfAbc)));
  EXPECT_TRUE(Check(Upper(kSha512OfAbc)));
  EXPECT_TRUE(Check("Ba" + kSha256OfAbc.substr(2)));
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumAcceptsAnEmptyFile) {
  test::WriteFile(file_, "");
  EXPECT_TRUE(Check(kSha256OfNothing));
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumReadsAFileOfOneByte) {
  test::WriteFile(file_, "a");
  EXPECT_TRUE(Check("ca978112ca1bbdcafac231b39a23dc4da786eff8147c4e72b9807785afee48bb"));
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumReadsAFileOfManyPieces) {
  test::WriteFile(file_, std::string(1'000'000, 'a'));
  EXPECT_TRUE(Check(kSha256OfAMillionA));
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumRefusesOneWrongDigitAnywhere) {
  for (std::size_t i = 0; i < kSha256OfAbc.size(); ++i) {
    std::string wrong = kSha256OfAbc;
    wrong[i] = wrong[i] == '0' ? '1' : '0';
    EXPECT_FALSE(Check(wrong)) << i;
  }
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumRefusesOtherTexts) {
  EXPECT_FALSE(Check(""));
  EXPECT_FALSE(Check("900150983cd24fb0d6963f7d28e17f72"));  // MD5
  EXPECT_FALSE(Check(kSha256OfAbc.substr(1)));
  EXPECT_FALSE(Check(kSha256OfAbc + " "));
  EXPECT_FALSE(Check(std::string(64, 'z')));
  EXPECT_FALSE(Check(std::string(64, '\0')));
  EXPECT_FALSE(Check(kSha256OfAbc + kSha256OfAbc));
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumRefusesAChangedFile) {
  test::WriteFile(file_, "abd");
  EXPECT_FALSE(Check(kSha256OfAbc));
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumRefusesAMissingFile) {
  std::filesystem::remove(file_);
  EXPECT_FALSE(Check(kSha256OfAbc));
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumRefusesADirectory) {
  EXPECT_FALSE(wrapper_.CheckFileChecksum(folder_.path(), kSha256OfNothing));
}

TEST_F(OrbaPkgWrapperTest, CheckFileChecksumDoesNotWaitAtAPipe) {
  ASSERT_EQ(mkfifo(folder_.File("pipe").c_str(), 0600), 0);
  EXPECT_FALSE(wrapper_.CheckFileChecksum(folder_.File("pipe"), kSha256OfNothing));
}

// A regular file whose first read fails: nothing is mapped at the address 0.
TEST_F(OrbaPkgWrapperTest, CheckFileChecksumRefusesAFileThatCannotBeReadToTheEnd) {
  EXPECT_FALSE(wrapper_.CheckFileChecksum("/proc/self/mem", kSha256OfNothing));
}

}  // namespace
}  // namespace orbamira::wrapper
