#include "platform/http/http_transfer.h"

#include <curl/curl.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <string>

namespace orbamira {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// The largest that every curl accepts.
constexpr long kReceiveBuffer = 512L * 1024;

// Measures the rate of a transfer. curl's own low-speed limit goes by the average of the last seconds, so it sees a
// stall late, and it is also exhausted by a callback that keeps curl waiting.
class StallWatch {
 public:
  // Connecting is limited by itself, so the first byte may take both times.
  explicit StallWatch(const TransferLimits& limits)
      : stall_(limits.stall),
        enough_(std::max<std::size_t>(1, static_cast<std::size_t>(limits.stall / std::chrono::seconds(1)))),
        deadline_(Clock::now() + limits.connect + limits.stall) {}

  // Called after bytes were dealt with, so that the time that this took does not count.
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
  std::size_t enough_;  // bytes that earn a new deadline
  std::size_t counted_ = 0;
  Clock::time_point deadline_;
};

struct MultiCleanup {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};

// Drives one transfer, so that a stall is noticed when it is one.
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

  // Whether the transfer came to an end; not when it stalled.
  [[nodiscard]] bool RunUntilStall(const StallWatch& watch) {
    int running = 1;
    while (curl_multi_perform(multi_.get(), &running) == CURLM_OK && running > 0) {
      const milliseconds left = watch.Left();
      if (left.count() <= 0) {
        return false;
      }
      // curl bounds the wait by its own timers.
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

void SetUpForDownloads(cpr::Session& session) {
  session.SetAcceptEncoding(cpr::AcceptEncoding({cpr::AcceptEncodingMethods::disabled}));
  CURL* curl = session.GetCurlHolder()->handle;
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  // The host has threads of its own: time-outs must not come as SIGALRM.
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
}

cpr::Response Fetch(cpr::Session& session, const TransferLimits& limits, const BodyCallback& take) {
  // An exception must not pass through curl: it is kept until curl has returned.
  std::exception_ptr thrown;
  StallWatch watch(limits);
  session.SetConnectTimeout(limits.connect);
  session.PrepareDownload(cpr::WriteCallback([&](std::string_view bytes, intptr_t /*unused*/) {
    bool go_on = false;
    try {
      go_on = take(bytes);
    } catch (...) {
      thrown = std::current_exception();
    }
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
