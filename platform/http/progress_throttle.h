#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace orbamira {

/// Calls a progress function so seldom that it costs at most 2 % of the time, however long one call takes: where the
/// function writes to a slow disk, the download must not wait for the bar. A function that takes up to 20 ms is still
/// called once a second.
class ProgressThrottle {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Progress = std::function<void(long, long)>;

  /// `progress` may be null or empty, and then is never called; otherwise it outlives this object. `now` is the clock.
  explicit ProgressThrottle(const Progress* progress, std::function<TimePoint()> now = std::chrono::steady_clock::now);

  /// The body has grown to `received` of `total` bytes (0 while unknown). The first call of all is passed on, the
  /// others when enough time has gone by since the last one that was.
  void Report(std::int64_t received, std::int64_t total);

  /// The body is complete. Always passed on, unless the very same was the last to be passed on.
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
