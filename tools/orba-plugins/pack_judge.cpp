#include "tools/orba-plugins/pack_judge.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string_view>

#include "platform/constants.h"
#include "platform/posix/pack_libraries.h"
#include "tools/orba-plugins/failure.h"
#include "tools/orba-plugins/plugin_run.h"
#include "tools/orba-plugins/time_limit.h"

namespace orbamira::plugins {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSearchPath = "LD_LIBRARY_PATH";

// The folders of the libraries, as the loader searches them: applications find a pack's libraries by their names, too.
std::string SearchPath(const std::vector<std::string>& libraries) {
  std::string path;
  std::string last;
  for (const std::string& library : libraries) {
    const std::string folder = fs::path(library).parent_path();
    if (folder != last) {
      path += (path.empty() ? "" : ":") + folder;
      last = folder;
    }
  }
  return path;
}

// Why the library cannot be loaded; empty when it can.
std::string WhyNotLoaded(const std::string& library, double seconds, Signals& signals) {
  constexpr std::string_view kLoaded = "loaded";
  constexpr std::size_t kMost = 4096;
  const std::string loader = fs::path(path::kHealthProgramPath).replace_filename("orba-load");
  std::string said;
  const auto take = [&](std::string_view piece) {
    said += piece.substr(0, kMost - std::min(kMost, said.size()));
    return true;
  };
  try {
    RunPlugin(loader, {library}, seconds, signals, take);
  } catch (const NoAnswer&) {
    throw;
  } catch (const PluginFailure& failure) {
    return said.empty() ? failure.reason() : said;
  }
  return said.ends_with(kLoaded) ? "" : "it ended the process that loaded it";
}

class Judge {
 public:
  void Ask(const std::string& subject, const std::function<std::string()>& why_not) {
    try {
      if (const std::string reason = why_not(); !reason.empty()) {
        Report(subject + ": " + reason);
        judgement_ = Judgement::kUnhealthy;
      }
    } catch (const NoAnswer& failure) {
      Report(subject + ": not checked: " + failure.reason());
      judgement_ = judgement_ == Judgement::kHealthy ? Judgement::kUnknown : judgement_;
    }
  }

  [[nodiscard]] Judgement judgement() const { return judgement_; }

 private:
  Judgement judgement_ = Judgement::kHealthy;
};

}  // namespace

Judgement JudgePack(const std::string& folder, const std::vector<std::string>& programs, Signals& signals) {
  const double seconds = TimeLimit(common::kHealthTimeLimit);
  Judge judge;
  const std::vector<std::string> libraries = FindLibraries(folder);
  setenv(kSearchPath, SearchPath(libraries).c_str(), 1);
  for (const std::string& library : libraries) {
    judge.Ask(library, [&] { return WhyNotLoaded(library, seconds, signals); });
  }
  unsetenv(kSearchPath);
  for (const std::string& program : programs) {
    judge.Ask(program, [&]() -> std::string {
      try {
        RunPlugin(program, {folder}, seconds, signals);
      } catch (const NoAnswer&) {
        throw;
      } catch (const PluginFailure& failure) {
        return failure.reason();
      }
      return "";
    });
  }
  return judge.judgement();
}

}  // namespace orbamira::plugins
