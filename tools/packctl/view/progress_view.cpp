#include "tools/packctl/view/progress_view.h"

#include <algorithm>
#include <utility>

#include "tools/packctl/view/result_words.h"
#include "tools/packctl/view/status_words.h"

namespace orbamira::packctl {
namespace {

// A record of work under way without step and sizes is what the work begins with.
std::string FirstWords(updater::PackStatus status) {
  return status == updater::kStatusInstalling ? "Preparing the install" : "Asking the update server";
}

}  // namespace

LineView::LineView(Write write, std::function<int()> columns)
    : write_(std::move(write)), columns_(std::move(columns)) {}

void LineView::Show(const StatusRecord& record, Clock::time_point time) {
  if (!IsUnderWay(record.status)) {
    return;
  }
  // The last column stays free: a character there makes some terminals begin a new line.
  const int columns = std::max(columns_() - 1, 1);
  std::string line = Line(record, time, columns);
  const std::size_t filled = line.size();
  line.resize(std::max(filled, std::min(drawn_, static_cast<std::size_t>(columns))), ' ');
  write_("\r" + line);
  drawn_ = filled;
}

std::string LineView::Line(const StatusRecord& record, Clock::time_point time, int columns) {
  if (!record.install_step.empty()) {
    return Shorten(Capitalized(StepWords(record.install_step)), columns);
  }
  meter_.Add(record.download_size_now, time);
  if (record.download_size_now <= 0 && record.download_size_total <= 0) {
    return Shorten(FirstWords(record.status), columns);
  }
  return FormatDownload({record.download_size_now, record.download_size_total, meter_.rate()}, columns);
}

void LineView::Finish() {
  if (drawn_ > 0) {
    write_("\n");
    drawn_ = 0;
  }
}

PlainView::PlainView(Write write) : write_(std::move(write)) {}

void PlainView::Show(const StatusRecord& record, Clock::time_point /*time*/) {
  if (!IsUnderWay(record.status)) {
    return;
  }
  if (record.install_step.empty()) {
    ShowDownload(record);
  } else if (record.install_step != step_) {
    step_ = record.install_step;
    write_(Capitalized(StepWords(step_)) + "\n");
  }
}

void PlainView::ShowDownload(const StatusRecord& record) {
  const DownloadProgress progress{record.download_size_now, record.download_size_total};
  if (progress.now <= 0) {
    return;
  }
  constexpr std::int64_t kPiece = std::int64_t{16} << 20;
  const bool known = progress.total > 0;
  const std::int64_t reached = known ? progress.Percent() / 10 : progress.now / kPiece;
  if (reached < next_) {
    return;
  }
  next_ = reached + 1;
  write_("Downloaded " + FormatProgress(progress) + "\n");
}

void PlainView::Finish() {}

std::unique_ptr<ProgressView> MakeProgressView(bool on_terminal, ProgressView::Write write,
                                               std::function<int()> columns) {
  if (on_terminal) {
    return std::make_unique<LineView>(std::move(write), std::move(columns));
  }
  return std::make_unique<PlainView>(std::move(write));
}

}  // namespace orbamira::packctl
