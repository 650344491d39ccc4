#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "platform/download_wrapper.h"
#include "platform/http/http_transfer.h"

namespace orbamira {

/// The limits and retries of a download. Tests make a policy of their own; everybody else takes the defaults.
struct DownloadPolicy {
  TransferLimits limits;
  /// How many times in a row a broken transfer resumes. Each mebibyte of new bytes starts the count again: a bad line
  /// that makes progress gets there, and a server that makes none cannot keep us busy.
  int resumes = 5;
  /// The wait before the first resume. It doubles each time, and varies by a quarter so that appliances that lost the
  /// same server do not all return at once.
  std::chrono::milliseconds first_wait{std::chrono::seconds(1)};
  /// The body's size in bytes by the update server's reply; a larger body fails. Empty when the reply does not say.
  std::optional<std::int64_t> size = {};
  std::function<void(std::chrono::milliseconds)> wait = [](std::chrono::milliseconds time) {
    std::this_thread::sleep_for(time);
  };
};

/// Makes a download with this policy; never empty. Throws std::runtime_error when a setting of the network cannot be
/// used.
std::shared_ptr<wrapper::DownloadWrapper> MakeDownload(const DownloadPolicy& policy);

}  // namespace orbamira
