#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tools/packctl/view/progress_view.h"

namespace orbamira::packctl {
namespace {

using std::chrono::seconds;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::int64_t kMiB = std::int64_t{1} << 20;

StatusRecord Downloading(std::int64_t now, std::int64_t total) {
  return {.status = updater::kStatusDownloading, .download_size_now = now, .download_size_total = total};
}

StatusRecord InstallingAt(const std::string& step) {
  return {.status = updater::kStatusInstalling, .install_step = step};
}

class Screen {
 public:
  ProgressView::Write Write() {
    return [this](std::string_view text) { written_.emplace_back(text); };
  }
  [[nodiscard]] const std::vector<std::string>& written() const { return written_; }

 private:
  std::vector<std::string> written_;
};

class LineViewTest : public testing::Test {
 protected:
  void Show(const StatusRecord& record, int second = 0) {
    view_.Show(record, ProgressView::Clock::time_point(seconds(second)));
  }

  int columns_ = 80;
  Screen screen_;
  LineView view_{screen_.Write(), [this] { return columns_; }};
};

TEST_F(LineViewTest, ShowRedrawsOneLine) {
  Show(Downloading(kMiB, 4 * kMiB));
  Show(Downloading(2 * kMiB, 4 * kMiB), 1);
  EXPECT_THAT(screen_.written(), Each(StartsWith("\r")));
  EXPECT_THAT(screen_.written().back(), HasSubstr("2.0 MiB of 4.0 MiB"));
  EXPECT_THAT(screen_.written().back(), HasSubstr("50%"));
  EXPECT_THAT(screen_.written().back(), HasSubstr("1.0 MiB/s  0:02 left"));
}

TEST_F(LineViewTest, ShowSaysWhatIsDoneBeforeTheFirstByte) {
  Show(Downloading(0, 0));
  Show({.status = updater::kStatusDownloadingInstalling});
  Show({.status = updater::kStatusInstalling});
  EXPECT_EQ(screen_.written()[0], "\rAsking the update server");
  EXPECT_EQ(screen_.written()[1], "\rAsking the update server");
  EXPECT_THAT(screen_.written()[2], StartsWith("\rPreparing the install"));
}

TEST_F(LineViewTest, ShowBlanksWhatALongerLineLeft) {
  Show(Downloading(kMiB, 4 * kMiB));
  Show(InstallingAt("post_install"));
  EXPECT_THAT(screen_.written()[1], SizeIs(screen_.written()[0].size()));
  EXPECT_THAT(screen_.written()[1], StartsWith("\rThe new pack is in place "));
  EXPECT_THAT(screen_.written()[1], EndsWith(" "));
}

TEST_F(LineViewTest, ShowFollowsTheWidthAndLeavesTheLastColumnFree) {
  Show(Downloading(kMiB, 4 * kMiB));
  for (columns_ = 1; columns_ < 80; ++columns_) {
    Show(Downloading(kMiB, 4 * kMiB));
    Show(InstallingAt("install"));
    const std::size_t room = columns_ > 1 ? static_cast<std::size_t>(columns_) - 1 : 1;
    EXPECT_LE(screen_.written().back().size() - 1, room);
  }
}

TEST_F(LineViewTest, ShowDrawsNothingForARecordOfNoWork) {
  Show({.status = updater::kStatusNeedDownload, .new_version = "2"});
  Show({.status = updater::kStatusUpToDate});
  view_.Finish();
  EXPECT_THAT(screen_.written(), IsEmpty());
}

TEST_F(LineViewTest, FinishEndsTheLineOnce) {
  Show(InstallingAt("install"));
  view_.Finish();
  view_.Finish();
  EXPECT_THAT(screen_.written(), SizeIs(2));
  EXPECT_EQ(screen_.written().back(), "\n");
}

class PlainViewTest : public testing::Test {
 protected:
  void Show(const StatusRecord& record) { view_.Show(record, {}); }

  Screen screen_;
  PlainView view_{screen_.Write()};
};

TEST_F(PlainViewTest, ShowWritesALineForEachTenth) {
  for (int percent = 0; percent <= 100; ++percent) {
    Show(Downloading(percent * kMiB, 100 * kMiB));
  }
  EXPECT_THAT(screen_.written(), SizeIs(11));
  EXPECT_EQ(screen_.written()[0], "Downloaded 1.0 MiB of 100.0 MiB (1 %)\n");
  EXPECT_EQ(screen_.written()[1], "Downloaded 10.0 MiB of 100.0 MiB (10 %)\n");
  EXPECT_EQ(screen_.written()[10], "Downloaded 100.0 MiB of 100.0 MiB (100 %)\n");
}

TEST_F(PlainViewTest, ShowWritesALineForEach16MebibytesOfAnUnknownTotal) {
  for (int size = 1; size <= 40; ++size) {
    Show(Downloading(size * kMiB, 0));
  }
  EXPECT_THAT(screen_.written(), ElementsAre("Downloaded 1.0 MiB\n", "Downloaded 16.0 MiB\n", "Downloaded 32.0 MiB\n"));
}

TEST_F(PlainViewTest, ShowWritesEachInstallStepOnce) {
  for (const char* step :
       {"pre_uninstall", "pre_uninstall", "uninstall", "post_uninstall", "install", "install", "post_install"}) {
    Show(InstallingAt(step));
  }
  EXPECT_THAT(screen_.written(),
              ElementsAre("Telling applications that the old pack goes\n", "Moving the old pack aside\n",
                          "The old pack is out of the way\n", "Unpacking the new pack and putting it in place\n",
                          "The new pack is in place\n"));
}

TEST_F(PlainViewTest, ShowWritesNothingForARecordOfNoWork) {
  Show({.status = updater::kStatusUpToDate});
  view_.Finish();
  EXPECT_THAT(screen_.written(), IsEmpty());
}

}  // namespace
}  // namespace orbamira::packctl
