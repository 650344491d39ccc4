#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <system_error>

#include "platform/constants.h"
#include "platform/orba_core_wrapper.h"
#include "platform/posix/file_status.h"
#include "platform/posix/files.h"
#include "tools/packctl/doctor/checks.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPlugins = "plugins";

/// A folder that only we can open, gone with its object.
class PrivateFolder {
 public:
  PrivateFolder() : path_((fs::temp_directory_path() / "packctl.XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) {
      ThrowErrno(path_);
    }
  }
  ~PrivateFolder() {
    std::error_code error;
    fs::remove_all(path_, error);
  }
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  [[nodiscard]] std::string File(const std::string& name) const { return Below(path_, name); }

 private:
  std::string path_;
};

// What is meant as a program but is passed over.
Findings CheckExecutable(const char* check, const char* folder, const char* consequence) {
  Findings findings;
  for (const fs::path& program : ProgramsIn(folder)) {
    if (access(program.c_str(), X_OK) != 0) {
      findings.push_back({check, program.string() + consequence, "chmod 0755 " + program.string()});
    }
  }
  return findings;
}

}  // namespace

std::vector<fs::path> ProgramsIn(const fs::path& folder) {
  std::error_code error;
  std::vector<fs::path> programs;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (!name.starts_with('.') && !name.ends_with('~') && fs::is_regular_file(StatusOf(entry->path()))) {
      programs.push_back(entry->path());
    }
  }
  std::sort(programs.begin(), programs.end());
  return programs;
}

Findings CheckHealthPrograms() {
  return CheckExecutable("health", path::kHealthFolder, " is not executable, so it judges no pack");
}

Findings CheckPlugins(Console& console) {
  Findings findings =
      CheckExecutable(kPlugins, path::kPluginFolder, " is not executable, so it is never told of anything");
  // Not in the library's own place, where an update or another query may be waiting for its answer.
  std::optional<PrivateFolder> folder;
  try {
    folder.emplace();
  } catch (const std::system_error& error) {
    findings.push_back({kPlugins,
                        std::string("the plugins cannot be asked, for want of a temporary folder: ") + error.what(),
                        "make room there, or set TMPDIR to a folder that can be written"});
    return findings;
  }
  console.TakeHeld();
  if (wrapper::OrbaCoreWrapper().RunCommand({path::kGetAppIdPyPath, folder->File("answer")}) < 0) {
    return findings;  // that it cannot be run is for the check of the programs
  }
  constexpr std::string_view kSpeaker = "list-app-ids: ";
  for (const std::string& line : console.TakeHeld().other) {
    if (line.starts_with(kSpeaker)) {
      findings.push_back({kPlugins, line.substr(kSpeaker.size()), "mend or remove it"});
    }
  }
  return findings;
}

}  // namespace orbamira::packctl
