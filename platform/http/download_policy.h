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

/// How hard a download tries.
struct DownloadPolicy {
  TransferLimits limits;
  /// How often in a row a cut transfer is taken up. One that brings the body a mebibyte further than it has been renews
  /// the count, so that a bad line that makes progress ends well, and a server that never gets on cannot hold us.
  int resumes = 5;
  /// The wait before the first of them; it doubles with each, and is varied by a quarter so that many appliances which
  /// lost one server do not come back to it at once.
  std::chrono::milliseconds first_wait{std::chrono::seconds(1)};
  /// What the update server says that the body has; a larger one fails. Empty where that is not known.
  std::optional<std::int64_t> size = {};
  std::function<void(std::chrono::milliseconds)> wait = [](std::chrono::milliseconds time) {
    std::this_thread::sleep_for(time);
  };
};

/// A download that keeps to the policy.
std::shared_ptr<wrapper::DownloadWrapper> MakeDownload(const DownloadPolicy& policy);

}  // namespace orbamira
