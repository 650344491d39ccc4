#include "platform/http/progress_throttle.h"

#include <algorithm>
#include <utility>

#include "platform/as_long.h"

namespace orbamira {
namespace {

// A call that takes 1 unit of time is followed by 49 without one: 1 of 50 is 2 %.
constexpr int kRestPerCall = 49;
constexpr std::chrono::milliseconds kShortestGap{100};

}  // namespace

ProgressThrottle::ProgressThrottle(const Progress* progress, std::function<TimePoint()> now)
    : progress_(progress != nullptr && *progress ? progress : nullptr), now_(std::move(now)) {}

void ProgressThrottle::Report(std::int64_t received, std::int64_t total) {
  if (progress_ != nullptr && now_() >= next_) {
    Call(received, total);
  }
}

void ProgressThrottle::ReportLast(std::int64_t size) {
  if (progress_ != nullptr && (last_received_ != size || last_total_ != size)) {
    Call(size, size);
  }
}

void ProgressThrottle::Call(std::int64_t received, std::int64_t total) {
  const TimePoint begin = now_();
  (*progress_)(AsLong(received), AsLong(total));
  const TimePoint end = now_();
  next_ = end + std::max<TimePoint::duration>(kShortestGap, kRestPerCall * (end - begin));
  last_received_ = received;
  last_total_ = total;
}

}  // namespace orbamira
