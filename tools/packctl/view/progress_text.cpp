#include "tools/packctl/view/progress_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace orbamira::packctl {
namespace {

std::string FormatNumber(const char* format, double number) {
  std::array<char, 32> buffer{};
  const int length = std::snprintf(buffer.data(), buffer.size(), format, number);
  return {buffer.data(), static_cast<std::size_t>(length)};
}

std::string PadLeft(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

// The fields keep their widths while the numbers change, so that the bar does not dance.
constexpr std::size_t kSizeWidth = 10;
constexpr std::size_t kRateWidth = 12;
constexpr std::size_t kPercentWidth = 4;
constexpr int kMinBar = 12;
constexpr int kMaxBar = 42;

std::string TimeLeft(const DownloadProgress& progress) {
  const double seconds = static_cast<double>(progress.total - progress.now) / progress.rate.value_or(1);
  // Beyond what any display shows, and inside what the type holds.
  constexpr double kLongest = 1e9;
  return FormatDuration(std::chrono::seconds(std::llround(std::clamp(seconds, 0.0, kLongest)))) + " left";
}

std::string FormatUnknownTotal(const DownloadProgress& progress, std::size_t room) {
  std::string sizes = FormatBytes(progress.now);
  if (!progress.rate) {
    return sizes;
  }
  std::string with_rate = PadLeft(sizes, kSizeWidth) + "  " + PadLeft(FormatRate(*progress.rate), kRateWidth);
  return with_rate.size() <= room ? with_rate : sizes;
}

}  // namespace

std::string FormatBytes(std::int64_t bytes) {
  constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) {
    return std::to_string(std::max<std::int64_t>(bytes, 0)) + " B";
  }
  // 1023.95 would be shown as 1024.0.
  constexpr double kNextUnit = 1023.95;
  double number = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (number >= kNextUnit && unit + 1 < kUnits.size()) {
    number /= 1024;
    ++unit;
  }
  return FormatNumber("%.1f ", number) + kUnits[unit];
}

std::string FormatRate(double bytes_per_second) { return FormatBytes(std::llround(bytes_per_second)) + "/s"; }

std::string FormatDuration(std::chrono::seconds duration) {
  using std::chrono::duration_cast;
  using std::chrono::hours;
  using std::chrono::minutes;
  duration = std::max(duration, std::chrono::seconds::zero());
  const auto in_hours = duration_cast<hours>(duration).count();
  const auto in_minutes = duration_cast<minutes>(duration % hours(1)).count();
  const auto in_seconds = (duration % minutes(1)).count();
  if (in_hours > 99) {
    return "over 99 h";
  }
  const auto two_digits = [](auto number) {
    return std::string(number < 10 ? "0" : "").append(std::to_string(number));
  };
  if (in_hours > 0) {
    return std::to_string(in_hours) + ":" + two_digits(in_minutes) + ":" + two_digits(in_seconds);
  }
  return std::to_string(in_minutes) + ":" + two_digits(in_seconds);
}

std::string FormatBar(double fraction, int width) {
  const int inner = std::max(width, 3) - 2;
  const int filled = std::clamp(static_cast<int>(std::lround(fraction * inner)), 0, inner);
  std::string bar(static_cast<std::size_t>(filled), '=');
  if (filled > 0 && filled < inner) {
    bar.back() = '>';
  }
  bar.resize(static_cast<std::size_t>(inner), ' ');
  return "[" + bar + "]";
}

double DownloadProgress::Fraction() const {
  return total > 0 ? std::clamp(static_cast<double>(now) / static_cast<double>(total), 0.0, 1.0) : 0.0;
}

int DownloadProgress::Percent() const { return static_cast<int>(Fraction() * 100); }

std::string FormatProgress(const DownloadProgress& progress) {
  const std::string now = FormatBytes(progress.now);
  return progress.total > 0
             ? now + " of " + FormatBytes(progress.total) + " (" + std::to_string(progress.Percent()) + " %)"
             : now;
}

std::string FormatDownload(const DownloadProgress& progress, int columns) {
  const auto room = static_cast<std::size_t>(std::max(columns, 0));
  if (progress.total <= 0) {
    return Shorten(FormatUnknownTotal(progress, room), columns);
  }
  const std::string percent = PadLeft(std::to_string(progress.Percent()) + "%", kPercentWidth);
  const std::string sizes = PadLeft(FormatBytes(progress.now), kSizeWidth) + " of " + FormatBytes(progress.total);
  const std::string rate = progress.rate ? "  " + PadLeft(FormatRate(*progress.rate), kRateWidth) : "";
  const std::string left = progress.rate && *progress.rate >= 1 ? "  " + TimeLeft(progress) : "";

  const std::string front = sizes + " ";
  const std::string back = " " + percent + rate;
  const int bar = columns - static_cast<int>(front.size() + back.size());
  // The time left changes its width: the bar gets what its longest form leaves.
  constexpr int kLongestLeft = 16;
  if (!left.empty() && bar - kLongestLeft >= kMinBar) {
    return front + FormatBar(progress.Fraction(), std::min(bar - kLongestLeft, kMaxBar)) + back + left;
  }
  if (bar >= kMinBar) {
    return front + FormatBar(progress.Fraction(), std::min(bar, kMaxBar)) + back;
  }
  if (sizes.size() + back.size() <= room) {
    return sizes + back;
  }
  if (sizes.size() + 1 + percent.size() <= room) {
    return front + percent;
  }
  return Shorten(percent, columns);
}

std::string Shorten(const std::string& text, int columns) {
  return text.substr(0, static_cast<std::size_t>(std::max(columns, 0)));
}

void RateMeter::Add(std::int64_t bytes, Clock::time_point time) {
  if (last_ && bytes < last_->bytes) {
    rate_.reset();
    last_.reset();
  }
  if (!last_) {
    last_ = Sample{bytes, time};
    return;
  }
  const double seconds = std::chrono::duration<double>(time - last_->time).count();
  // The count is told more often than it changes: only a change tells how long it took.
  if (bytes == last_->bytes || seconds <= 0) {
    return;
  }
  constexpr double kSmoothingSeconds = 5;
  const double current = static_cast<double>(bytes - last_->bytes) / seconds;
  const double weight = 1 - std::exp(-seconds / kSmoothingSeconds);
  rate_ = rate_ ? *rate_ + weight * (current - *rate_) : current;
  last_ = Sample{bytes, time};
}

}  // namespace orbamira::packctl
