#include "platform/http/http_transfer.h"

#include <curl/curl.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <thread>

namespace orbamira {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// The most that every version of curl accepts.
constexpr long kReceiveBuffer = 512L * 1024;

// Measures the rate of a transfer. curl's own low-speed limit takes the average of the last seconds, so it notices a
// stall late, and it also counts the time that a callback takes.
class StallWatch {
 public:
  // Connecting has a limit of its own, so the first byte may take as long as both limits together.
  explicit StallWatch(const TransferLimits& limits)
      : stall_(limits.stall),
        enough_(std::max<std::size_t>(1, static_cast<std::size_t>(limits.stall / std::chrono::seconds(1)))),
        deadline_(Clock::now() + limits.connect + limits.stall) {}

  // Call it after the bytes were processed, so that the processing does not count.
  void Count(std::size_t bytes) {
    counted_ += bytes;
    if (counted_ >= enough_) {
      counted_ = 0;
      deadline_ = Clock::now() + stall_;
    }
  }

  [[nodiscard]] milliseconds Left() const { return std::chrono::ceil<milliseconds>(deadline_ - Clock::now()); }

 private:
  milliseconds stall_;
  std::size_t enough_;  // bytes that move the deadline
  std::size_t counted_ = 0;
  Clock::time_point deadline_;
};

// Keeps a transfer to a rate by not reading for a while. libcurl's own limit was seen to be passed over.
class Pace {
 public:
  explicit Pace(std::int64_t rate) : rate_(rate) {}

  // What the line did not give in the last second may be made up for.
  void Keep(std::size_t bytes) {
    if (rate_ > 0) {
      const std::chrono::duration<double> time(static_cast<double>(bytes) / static_cast<double>(rate_));
      due_ = std::max(due_, Clock::now() - std::chrono::seconds(1)) + std::chrono::ceil<Clock::duration>(time);
      std::this_thread::sleep_until(due_);
    }
  }

 private:
  std::int64_t rate_;
  Clock::time_point due_ = Clock::now();
};

struct MultiCleanup {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};

// Runs one transfer step by step, so that it notices a stall in time.
class Drive {
 public:
  explicit Drive(CURL* easy) : easy_(easy), multi_(curl_multi_init()) {
    if (multi_ == nullptr || curl_multi_add_handle(multi_.get(), easy_) != CURLM_OK) {
      throw std::bad_alloc();
    }
  }
  ~Drive() { curl_multi_remove_handle(multi_.get(), easy_); }
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  // Whether the transfer ended; false when it stalled.
  [[nodiscard]] bool RunUntilStall(const StallWatch& watch) {
    int running = 1;
    while (curl_multi_perform(multi_.get(), &running) == CURLM_OK && running > 0) {
      const milliseconds left = watch.Left();
      if (left.count() <= 0) {
        return false;
      }
      // curl returns earlier when one of its own timers expires.
      curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(std::min(left, milliseconds(60000)).count()), nullptr);
    }
    return true;
  }

  [[nodiscard]] CURLcode Result() {
    int remaining = 0;
    const CURLMsg* message = curl_multi_info_read(multi_.get(), &remaining);
    return message != nullptr ? message->data.result : CURLE_FAILED_INIT;
  }

 private:
  CURL* easy_;
  std::unique_ptr<CURLM, MultiCleanup> multi_;
};

}  // namespace

void SetUpForDownloads(cpr::Session& session, const NetworkSettings& settings) {
  session.SetAcceptEncoding(cpr::AcceptEncoding({cpr::AcceptEncodingMethods::disabled}));
  CURL* curl = session.GetCurlHolder()->handle;
  // No more at once than a second's bytes, for which it is then paused.
  const std::int64_t rate = settings.download_rate > 0 ? settings.download_rate : kReceiveBuffer;
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, static_cast<long>(std::min<std::int64_t>(rate, kReceiveBuffer)));
  // Otherwise curl may use SIGALRM for time-outs, and the host has threads of its own.
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  UseNetworkSettings(session, settings);
}

cpr::Response Fetch(cpr::Session& session, const TransferLimits& limits, const BodyCallback& take) {
  // An exception must not pass through curl, so it is kept until curl returns.
  std::exception_ptr thrown;
  StallWatch watch(limits);
  Pace pace(limits.rate);
  session.SetConnectTimeout(limits.connect);
  session.PrepareDownload(cpr::WriteCallback([&](std::string_view bytes, intptr_t /*unused*/) {
    bool go_on = false;
    try {
      go_on = take(bytes);
    } catch (...) {
      thrown = std::current_exception();
    }
    pace.Keep(go_on ? bytes.size() : 0);
    watch.Count(bytes.size());
    return go_on;
  }));

  Drive drive(session.GetCurlHolder()->handle);
  const bool ended = drive.RunUntilStall(watch);
  cpr::Response response = session.CompleteDownload(ended ? drive.Result() : CURLE_OPERATION_TIMEDOUT);
  if (thrown) {
    std::rethrow_exception(thrown);
  }
  if (!ended) {
    response.error.message = "under 1 byte per second for " + std::to_string(limits.stall.count()) + " ms";
  }
  return response;
}

}  // namespace orbamira
