#include "platform/posix/file_status.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "tests/support/test_root.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

class FileStatusTest : public testing::Test {
 protected:
  FileStatusTest() { std::ofstream(file_) << "text"; }
  ~FileStatusTest() override {
    chmod(folder_.c_str(), 0700);
    fs::remove_all(folder_);
  }

  fs::path folder_ = [] {
    const fs::path folder = test::Root() / "status";
    fs::create_directories(folder);
    return folder;
  }();
  fs::path file_ = folder_ / "file";
};

// An appliance's clock may have been wrong when a pack came. With times of 32 bits in the C++ library, its own answer
// is an error then, and so was that of the recovery.
TEST_F(FileStatusTest, StatusOfAFileThatIsDatedAfter2038) {
  constexpr timespec kIn2040{.tv_sec = 2208988800, .tv_nsec = 0};
  const std::array<timespec, 2> times{kIn2040, kIn2040};
  ASSERT_EQ(utimensat(AT_FDCWD, file_.c_str(), times.data(), 0), 0);
  EXPECT_TRUE(fs::is_regular_file(StatusOf(file_)));
  EXPECT_TRUE(fs::is_regular_file(LinkStatusOf(file_)));
}

TEST_F(FileStatusTest, StatusIsThatOfTheStandardLibrary) {
  chmod(file_.c_str(), 04751);
  for (const fs::path& path : {file_, folder_, folder_ / "none", file_ / "below", fs::path("/dev/null")}) {
    EXPECT_EQ(StatusOf(path).type(), fs::status(path).type()) << path;
    EXPECT_EQ(StatusOf(path).permissions(), fs::status(path).permissions()) << path;
  }
}

TEST_F(FileStatusTest, LinkStatusStopsAtALink) {
  const fs::path link = folder_ / "link";
  fs::create_symlink("nowhere", link);
  EXPECT_TRUE(fs::is_symlink(LinkStatusOf(link)));
  EXPECT_FALSE(fs::exists(StatusOf(link)));
}

TEST_F(FileStatusTest, StatusOfWhatCannotBeSeenIsAnError) {
  const fs::path loop = folder_ / "loop";
  fs::create_symlink("loop", loop);
  std::error_code error;
  EXPECT_EQ(StatusOf(loop, error).type(), fs::file_type::none);
  EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
  EXPECT_THROW(StatusOf(loop), std::system_error);
  StatusOf(file_, error);
  EXPECT_FALSE(error);
}

}  // namespace
}  // namespace orbamira
