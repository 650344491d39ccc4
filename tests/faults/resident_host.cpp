// A host that runs on, as real ones do for months, and updates through the library on command.
//
// usage: resident_host [--leak descriptor|memory]
//
// Reads a word a line and answers each with a word: "update" brings the pack up to date under the update lock, with all
// that keeps a pack safe; "unlocked" updates as a host does that knows of neither. The answers are "updated", "nothing"
// when there is no new pack, "failed", and "busy" when another program has the lock. With --leak it keeps something of
// every update.

#include <fcntl.h>

#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"
#include "updater/health.h"
#include "updater/kos_helper.h"
#include "updater/pack_handler.h"
#include "updater/pack_manager.h"
#include "updater/pack_status_helper.h"
#include "updater/plugin_notifier.h"
#include "updater/recovery.h"
#include "updater/update_lock.h"

namespace {

using namespace orbamira;
using namespace orbamira::updater;

// Keeps its objects for its life.
class Host {
 public:
  std::string Do(const std::string& word) try {
    return word == "unlocked" ? UpdateUnlocked() : Update();
  } catch (const Busy&) {
    return "busy";
  } catch (const std::exception& error) {
    std::cerr << "resident_host: " << error.what() << '\n';
    return "failed";
  }

 private:
  std::string Update() {
    const UpdateLock lock;
    Recover(lock);
    if (IsUnchecked() && !ConfirmHealth(lock, *status_)) {
      return "failed";
    }
    if (!manager_.CheckNewPack() && !RepeatFailedUpdate(lock, manager_, *status_)) {
      return "nothing";
    }
    if (!manager_.DownloadAndInstall() || !ConfirmInstall(lock, *status_)) {
      Recover(lock);
      return "failed";
    }
    return ConfirmHealth(lock, *status_) ? "updated" : "failed";
  }

  std::string UpdateUnlocked() {
    if (!manager_.CheckNewPack()) {
      return "nothing";
    }
    return manager_.DownloadAndInstall() ? "updated" : "failed";
  }

  std::shared_ptr<IPackStatusHelper> status_ = PackStatusHelper::Create();
  PackManager manager_{std::make_shared<wrapper::OrbaCoreWrapper>(),
                       std::make_shared<wrapper::OrbaPkgWrapper>(),
                       KOSHelper::Create(),
                       status_,
                       PackHandler::Create(),
                       PluginNotifier::Create()};
};

// Keeps something, so that a test of what is left behind has something to find.
class Leak {
 public:
  explicit Leak(std::string_view kind) : kind_(kind) {}

  void Grow() {
    if (kind_ == "descriptor") {
      files_.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    } else if (kind_ == "memory") {
      constexpr std::size_t kSize = std::size_t{256} * 1024;
      memory_.emplace_back(kSize, 'x');
    }
  }

 private:
  std::string_view kind_;
  std::vector<int> files_;
  std::vector<std::string> memory_;
};

}  // namespace

int main(int argc, char** argv) try {
  Leak leak(argc == 3 && std::string_view(argv[1]) == "--leak" ? argv[2] : "");
  Host host;
  for (std::string word; std::getline(std::cin, word);) {
    std::cout << host.Do(word) << std::endl;
    leak.Grow();
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << "resident_host: " << error.what() << '\n';
  return 1;
}
