#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/progress_text.h"

/// The display of an update at work, on a terminal and in a file.
namespace orbamira::packctl {

/// Shows long work while it runs, from what the status store tells about it. One object shows one piece of work and is
/// used from one thread.
class ProgressView {
 public:
  using Clock = RateMeter::Clock;
  using Write = std::function<void(std::string_view)>;

  virtual ~ProgressView() = default;

  /// Shows the record as it is at `time`. Records that say nothing about work under way show nothing.
  virtual void Show(const StatusRecord& record, Clock::time_point time) = 0;

  /// Leaves the cursor at the beginning of an empty line.
  virtual void Finish() = 0;
};

/// For a terminal: one line, drawn again and again, never wider than the terminal.
class LineView : public ProgressView {
 public:
  /// `columns` is asked before each drawing, so that the line follows the window's size.
  LineView(Write write, std::function<int()> columns);

  void Show(const StatusRecord& record, Clock::time_point time) override;
  void Finish() override;

 private:
  std::string Line(const StatusRecord& record, Clock::time_point time, int columns);

  Write write_;
  std::function<int()> columns_;
  RateMeter meter_;
  std::size_t drawn_ = 0;  // columns that the last drawing filled
};

/// For a file or a pipe: a line at the start, one at each tenth of the download and one at each install step seen.
class PlainView : public ProgressView {
 public:
  explicit PlainView(Write write);

  void Show(const StatusRecord& record, Clock::time_point time) override;
  void Finish() override;

 private:
  void ShowDownload(const StatusRecord& record);

  Write write_;
  std::int64_t next_ = 0;  // the share of the download, in tenths or in pieces, that the next line waits for
  std::string step_;
};

/// The view that fits what is written to; `columns` is asked only of a terminal.
std::unique_ptr<ProgressView> MakeProgressView(bool on_terminal, ProgressView::Write write,
                                               std::function<int()> columns);

}  // namespace orbamira::packctl
