// Shows what the updater is doing, as a web interface would: from another process, until no work is in progress.
//
// usage: watch_status

#include <chrono>
#include <cstddef>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "platform/constants.h"
#include "updater/pack_status_helper.h"

namespace {

using namespace orbamira::updater;

bool IsUnderWay(PackStatus status) {
  return status == kStatusDownloading || status == kStatusInstalling || status == kStatusDownloadingInstalling;
}

// One line for the whole record. GetPackStatus() reads it in one go under the store's lock, and the other queries
// answer from what it read: they fit together, whatever the updater does meanwhile. Nobody waits for long: the lock is
// held only while the small file is read or written, never during a download.
std::string Describe(IPackStatusHelper& helper, PackStatus status) {
  std::string line = kPackStatusTexts[static_cast<std::size_t>(status)];
  if (const std::string version = helper.GetPackNewVersion(); !version.empty()) {
    line += ": version " + version;
  }
  if (const InstallStep step = helper.GetInstallProgress(); step != kStepNone) {
    line += std::string(": step ") + kInstallStepTexts[static_cast<std::size_t>(step)];
  }
  if (const auto [now, total] = helper.GetPackDownloadProgress(); total > 0) {
    line += ": " + std::to_string(now) + " of " + std::to_string(total) + " bytes";
  }
  return line;
}

}  // namespace

int main() {
  try {
    const std::unique_ptr<IPackStatusHelper> helper = PackStatusHelper::Create();
    if (helper == nullptr) {
      std::cerr << "watch_status: no status can be read from " << orbamira::path::kPackStatusFile << '\n';
      return 1;
    }
    std::string shown;
    for (PackStatus status = helper->GetPackStatus();; status = helper->GetPackStatus()) {
      if (const std::string line = Describe(*helper, status); line != shown) {
        std::cout << line << std::endl;  // at once, also into a pipe
        shown = line;
      }
      if (!IsUnderWay(status)) {
        return 0;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  } catch (const std::exception& error) {
    // The lock cannot be had (the reader must be in the lock's group), or the record is not one of this version's.
    std::cerr << "watch_status: " << error.what() << '\n';
    return 1;
  }
}
