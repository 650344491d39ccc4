#include "platform/posix/sector_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/posix/unique_fd.h"
#include "tests/support/forked.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

class SectorFileTest : public testing::Test {
 protected:
  static std::string Text(char letter) { return std::string(kSectorSize, letter); }

  test::TempDir folder_;
  const std::string path_ = folder_.File("file");
  const UniqueFd file_ = (test::WriteFile(path_, Text('a')), OpenFile(path_, O_RDWR));
};

TEST_F(SectorFileTest, OnlyARegularFileOfOneSectorIsOne) {
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_TRUE(IsSectorFile(status));
  status.st_mode = S_IFDIR | 0755;
  EXPECT_FALSE(IsSectorFile(status));
  test::WriteFile(path_, Text('a') + "b");
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_FALSE(IsSectorFile(status));
}

TEST_F(SectorFileTest, OverwriteSectorChangesTheFileForEverybody) {
  for (const Durability durability : {Durability::kDurable, Durability::kVisible}) {
    const std::string text = Text(durability == Durability::kDurable ? 'b' : 'c');
    EXPECT_TRUE(OverwriteSector(file_.get(), test::ReadFile(path_), text, durability));
    EXPECT_EQ(test::ReadFile(path_), text);
    EXPECT_TRUE(HoldsSector(file_.get(), text));
    EXPECT_EQ(ReadUnmixed(file_.get(), 1000), text);
  }
  EXPECT_FALSE(HoldsSector(file_.get(), Text('b')));
}

TEST_F(SectorFileTest, OverwriteSectorFailsOnAFileThatIsOpenForReading) {
  const UniqueFd reader = OpenFile(path_, O_RDONLY);
  EXPECT_FALSE(OverwriteSector(reader.get(), Text('a'), Text('b'), Durability::kVisible));
  EXPECT_EQ(test::ReadFile(path_), Text('a'));
}

TEST_F(SectorFileTest, ReadUnmixedWaitsAMomentForAWriter) {
  const UniqueFd writer = OpenFile(path_, O_RDWR);
  ASSERT_EQ(flock(writer.get(), LOCK_EX), 0);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(ReadUnmixed(file_.get(), kSectorSize), Text('a'));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
}

TEST_F(SectorFileTest, ReadUnmixedReadsNoMoreThanItIsTold) {
  EXPECT_EQ(ReadUnmixed(file_.get(), 100), std::string(100, 'a'));
  EXPECT_EQ(ReadUnmixed(file_.get(), 100), std::string(100, 'a'));
}

TEST_F(SectorFileTest, ReadUnmixedNeverGivesAPart) {
  constexpr int kWrites = 20'000;
  test::Forked reader([&] {
    const UniqueFd file = OpenFile(path_, O_RDONLY);
    for (std::optional<std::string> text; text != Text('z'); text = ReadUnmixed(file.get(), kSectorSize)) {
      if (text && text->find_first_not_of(text->front()) != std::string::npos) {
        return 1;
      }
    }
    return 0;
  });
  for (int i = 0; i < kWrites; ++i) {
    const char letter = static_cast<char>('a' + i % 2);
    // A reader that does not let go in time is no fault here.
    static_cast<void>(
        OverwriteSector(file_.get(), Text(letter), Text(letter == 'a' ? 'b' : 'a'), Durability::kVisible));
  }
  while (!OverwriteSector(file_.get(), Text('a'), Text('z'), Durability::kVisible)) {
  }
  EXPECT_EQ(reader.Wait(), 0);
}

}  // namespace
}  // namespace orbamira
