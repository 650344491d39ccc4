#include "platform/version.h"

#include <gmock/gmock.h>

#include <bitset>
#include <string>
#include <vector>

namespace orbamira {
namespace {

void ExpectOlder(const std::string& older, const std::string& newer) {
  EXPECT_TRUE(IsNewVersion(older, newer)) << older << " < " << newer;
  EXPECT_FALSE(IsNewVersion(newer, older)) << older << " < " << newer;
}

void ExpectEqual(const std::string& left, const std::string& right) {
  EXPECT_FALSE(IsNewVersion(left, right)) << left << " = " << right;
  EXPECT_FALSE(IsNewVersion(right, left)) << left << " = " << right;
}

TEST(VersionTest, IsNewVersionComparesPartsAsNumbers) {
  ExpectOlder("1.9", "1.10");
  ExpectOlder("1.2.3", "1.2.4");
  ExpectOlder("1.99.99", "2.0.0");
  ExpectOlder("9", "10");
}

TEST(VersionTest, IsNewVersionSplitsAtEverySeparator) {
  ExpectOlder("1.2-3", "1.2-10");
  ExpectOlder("1.2_3", "1.2_10");
  ExpectOlder("1.2+3", "1.2+10");
  ExpectEqual("1.2-3", "1_2+3");
}

TEST(VersionTest, IsNewVersionComparesNumbersOfAnyLength) {
  const std::string nines(40, '9');
  ExpectOlder(nines, "1" + std::string(40, '0'));
  ExpectOlder("18446744073709551615", "18446744073709551616");
  ExpectOlder("1." + nines + "8", "1." + nines + "9");
}

TEST(VersionTest, IsNewVersionIgnoresLeadingZeros) {
  ExpectEqual("1.02", "1.2");
  ExpectEqual("000", "0");
  ExpectOlder("0009", "10");
}

TEST(VersionTest, IsNewVersionTakesAMissingOrEmptyPartForZero) {
  ExpectEqual("1", "1.0");
  ExpectEqual("1", "1.0.0");
  ExpectEqual("", "0");
  ExpectEqual("1..2", "1.0.2");
  ExpectEqual("1.", "1");
  ExpectEqual(".1", "0.1");
  ExpectOlder("1", "1.0.1");
  ExpectOlder("", "1.0.0-0001");
}

TEST(VersionTest, IsNewVersionComparesOtherPartsAsText) {
  ExpectOlder("1.alpha", "1.beta");
  ExpectOlder("1.B", "1.a");
  ExpectOlder("1.rc1", "1.rc10");
  ExpectOlder("1.rc10", "1.rc2");
  ExpectOlder("1.a", "1.\xC3\xA4");
}

TEST(VersionTest, IsNewVersionTakesANumberForOlderThanAText) {
  ExpectOlder("1.2", "1.a");
  ExpectOlder("1.99", "1.9a");
  ExpectOlder("1", "1.a");
}

TEST(VersionTest, IsNewVersionIsFalseForEqualTexts) {
  ExpectEqual("1.2.3-0045", "1.2.3-0045");
  ExpectEqual("abc", "abc");
}

TEST(VersionTest, IsNewVersionIsFastForLongTexts) {
  const std::string dots(100'000, '.');
  ExpectEqual(dots, "");
  ExpectOlder(dots, dots + "1");
}

std::vector<std::string> ManyVersions() {
  const std::vector<std::string> parts = {"", "0", "00", "1", "01", "2", "10", "99999999999999999999", "a", "1a", "b"};
  std::vector<std::string> versions = parts;
  for (const std::string& first : parts) {
    for (const std::string& second : parts) {
      for (const char* separator : {".", "-", "+0_"}) {
        versions.emplace_back(first).append(separator).append(second);
      }
    }
  }
  return versions;
}

TEST(VersionTest, IsNewVersionIsAStrictWeakOrder) {
  const std::vector<std::string> versions = ManyVersions();
  const std::size_t count = versions.size();
  ASSERT_GT(count, 300U);
  constexpr std::size_t kMost = 512;
  ASSERT_LE(count, kMost);
  std::vector<std::bitset<kMost>> newer(count);  // newer[i][j]: j is newer than i
  std::vector<std::bitset<kMost>> older(count);
  for (std::size_t i = 0; i < count; ++i) {
    for (std::size_t j = 0; j < count; ++j) {
      newer[i][j] = older[j][i] = IsNewVersion(versions[i], versions[j]);
    }
  }
  for (std::size_t i = 0; i < count; ++i) {
    ASSERT_FALSE(newer[i][i]) << versions[i];
    ASSERT_TRUE((newer[i] & older[i]).none()) << versions[i];
    for (std::size_t j = 0; j < count; ++j) {
      // When j is newer than i, everything is newer than i or older than j: transitivity of the order and of
      // equivalence in one.
      ASSERT_TRUE(!newer[i][j] || (newer[i] | older[j]).count() == count) << versions[i] << ", " << versions[j];
    }
  }
}

}  // namespace
}  // namespace orbamira
