#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace orbamira {

/// Calls a progress function so rarely that it takes at most 2 % of the time, however slow it is: a download must not
/// wait for a progress bar that writes to a slow disk. A function that takes 20 ms is still called once a second.
class ProgressThrottle {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Progress = std::function<void(long, long)>;

  /// `progress` may be null or empty; otherwise it must outlive this object. `now` is the clock.
  explicit ProgressThrottle(const Progress* progress, std::function<TimePoint()> now = std::chrono::steady_clock::now);

  /// Reports `received` of `total` bytes (0 while unknown). Passes the first report on, and later ones when enough time
  /// has passed since the last one passed on.
  void Report(std::int64_t received, std::int64_t total);

  /// Reports the complete body. Always passes it on, unless the last report passed on was the same.
  void ReportLast(std::int64_t size);

 private:
  void Call(std::int64_t received, std::int64_t total);

  const Progress* progress_;
  std::function<TimePoint()> now_;
  TimePoint next_ = TimePoint::min();
  std::int64_t last_received_ = -1;
  std::int64_t last_total_ = -1;
};

}  // namespace orbamira
