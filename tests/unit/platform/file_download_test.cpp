#include "platform/http/file_download.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/exception.h"
#include "tests/support/disk_calls.h"
#include "tests/support/http_server.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Pair;
using testing::StartsWith;

class FileDownloadTest : public testing::Test {
 protected:
  int Download(const std::string& path) {
    const auto download = wrapper::DownloadWrapper::CreateForFile();
    download->SetUrl(path);
    download->SetProgressCallback(progress_);
    std::ofstream file(copy_, std::ios::binary);
    return download->DownloadToFile(file);
  }

  std::string FailureOf(const std::string& path) {
    try {
      ADD_FAILURE() << "the download returned " << Download(path);
    } catch (const exception::Exception<exception::kDownloadFailure>& failure) {
      EXPECT_EQ(failure.file(), "file_download.cpp");
      return failure.what();
    }
    return "";
  }

  std::string Source(const std::string& content) {
    test::WriteFile(source_, content);
    return source_;
  }

  std::vector<std::pair<long, long>> calls_;
  std::function<void(long, long)> progress_ = [this](long now, long total) { calls_.emplace_back(now, total); };
  test::TempDir dir_;
  std::string source_ = dir_.File("source");
  std::string copy_ = dir_.File("copy");
};

TEST_F(FileDownloadTest, CopiesTheFileAndReportsItFromTheFirstByteToTheLast) {
  const std::string content = test::PatternOf(500'000);
  EXPECT_EQ(Download(Source(content)), 200);
  EXPECT_EQ(test::ReadFile(copy_), content);
  struct stat about {};
  ASSERT_EQ(stat(copy_.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777U, 0600U);
  ASSERT_GE(calls_.size(), 2U);
  EXPECT_GT(calls_.front().first, 0);
  EXPECT_LT(calls_.front().first, 500'000);
  EXPECT_THAT(calls_.back(), Pair(500'000, 500'000));
}

TEST_F(FileDownloadTest, SyncsTheCopyBeforeItReportsTheEnd) {
  const std::string source = Source(test::PatternOf(500'000));
  test::DiskCalls calls;
  progress_ = [&calls](long now, long /*total*/) { calls.Note(std::to_string(now)); };
  Download(source);
  // On a slow machine there may be more reports before.
  const std::vector<std::string> last(calls.all().end() - 2, calls.all().end());
  EXPECT_THAT(last, ElementsAre("sync copy", "500000"));
  EXPECT_THAT(calls.all(), Contains("500000").Times(1));
}

TEST_F(FileDownloadTest, CopiesAFileOfOneByteOrNone) {
  for (const std::string content : {"", "1"}) {
    EXPECT_EQ(Download(Source(content)), 200);
    EXPECT_EQ(test::ReadFile(copy_), content);
  }
}

TEST_F(FileDownloadTest, RefusesWhatIsNoRegularFile) {
  ASSERT_EQ(mkfifo(source_.c_str(), 0600), 0);
  for (const std::string& path : {source_, dir_.path().string(), std::string("/dev/zero")}) {
    EXPECT_EQ(FailureOf(path), "cannot read the package file: " + path + ": not a regular file");
  }
  EXPECT_EQ(FailureOf("/missing/pack"),
            std::string("cannot read the package file: /missing/pack: ") + std::strerror(ENOENT));
}

TEST_F(FileDownloadTest, FailsWhenTheFileBecomesShorterMeanwhile) {
  progress_ = [this](long /*now*/, long /*total*/) { fs::resize_file(source_, 100'000); };
  EXPECT_EQ(FailureOf(Source(test::PatternOf(500'000))),
            "cannot read the package file: " + source_ + ": it became shorter");
}

TEST_F(FileDownloadTest, FailsWhenTheStickIsPulledOutMeanwhile) {
  progress_ = [](long /*now*/, long /*total*/) { test::FailSystemCall(SYS_read, ENODEV); };
  Source(test::PatternOf(500'000));
  std::string failure;
  std::thread([&] { failure = FailureOf(source_); }).join();  // in its thread, reading fails for good
  EXPECT_EQ(failure, "cannot read the package file: " + source_ + ": " + std::strerror(ENODEV));
}

TEST_F(FileDownloadTest, LetsAnExceptionOfTheProgressPass) {
  progress_ = [](long /*now*/, long /*total*/) { throw std::runtime_error("progress"); };
  EXPECT_THROW(Download(Source("content")), std::runtime_error);
}

TEST_F(FileDownloadTest, FailsWhereTheDiskTakesNoMore) {
  Source("content");
  copy_ = "/dev/full";
  EXPECT_THAT(FailureOf(source_), EndsWith(std::strerror(ENOSPC)));
}

TEST_F(FileDownloadTest, RefusesAFileLargerThanTheDiskBeforeItCopiesAny) {
  constexpr std::uintmax_t kSize = 8ULL << 40U;
  fs::resize_file(Source(""), kSize);
  EXPECT_THAT(FailureOf(source_), StartsWith("the file is over 17179869184 bytes, the download_limit of the settings"));
  test::WriteFile(path::kPkgSetting, std::string(common::kDownloadLimit) + "=" + std::to_string(kSize) + "\n");
  progress_ = [](long /*now*/, long /*total*/) { throw std::logic_error("copies"); };
  EXPECT_THAT(FailureOf(source_), StartsWith("cannot write the file: it needs 8796093022208 bytes"));
  fs::remove(path::kPkgSetting);
}

TEST_F(FileDownloadTest, KeepsToTheDownloadLimitOfTheSettings) {
  fs::create_directories(fs::path(path::kPkgSetting).parent_path());
  test::WriteFile(path::kPkgSetting, std::string(common::kDownloadLimit) + "=5\n");
  EXPECT_EQ(Download(Source("12345")), 200);
  EXPECT_THAT(FailureOf(Source("123456")), StartsWith("the file is over 5 bytes"));
  test::WriteFile(path::kPkgSetting, std::string(common::kDownloadLimit) + "=0\n");
  EXPECT_THAT(FailureOf(Source("1")), StartsWith("the file is over 0 bytes"));
  fs::remove(path::kPkgSetting);
}

}  // namespace
}  // namespace orbamira
