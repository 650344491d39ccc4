#include "tests/fuzz/flow/programs.h"

#include <getopt.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "platform/constants.h"
#include "platform/posix/atomic_file.h"
#include "platform/removal.h"
#include "platform/settings_file.h"
#include "tests/fuzz/fuzzing.h"
#include "tools/orba-copy/copy_folder.h"
#include "tools/orba-plugins/app_ids.h"
#include "updater/json_text.h"

int OrbaArchiveMain(int argc, char** argv);

namespace orbamira::fuzz::flow {
namespace {

constexpr int kNotStarted = -1;
constexpr std::size_t kLongestArgument = 128UL * 1024;  // the kernel's

/// What a program changes of its own process, for the life of the object. What it complains of is dropped.
class OwnProcess {
 public:
  OwnProcess() : errors_(stderr), mask_(umask(022)) {
    static FILE* const nowhere = std::getenv("ORBAMIRA_FUZZ_LOG") == nullptr ? std::fopen("/dev/null", "w") : stdout;
    stderr = nowhere;
    optind = 0;
  }
  ~OwnProcess() {
    umask(mask_);
    stderr = errors_;
  }
  OwnProcess(const OwnProcess&) = delete;
  OwnProcess& operator=(const OwnProcess&) = delete;

 private:
  FILE* errors_;
  mode_t mask_;
};

int Archive(std::vector<std::string> args) {
  std::vector<char*> argv;
  for (std::string& arg : args) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  return OrbaArchiveMain(static_cast<int>(args.size()), argv.data());
}

int Copy(const std::string& source, const std::string& target) {
  try {
    tools::CopyFolder(source, target);
  } catch (const std::exception&) {
    return -SIGTERM;
  }
  return 0;
}

int Remove(const std::string& path) {
  try {
    RemoveForUpdater(path);
  } catch (const std::exception&) {
    return 1;
  }
  return 0;
}

bool IsPassable(const std::string& argument) {
  return argument.find('\0') == std::string::npos && argument.size() < kLongestArgument;
}

}  // namespace

int Programs::RunCommand(const std::vector<std::string>& args) {
  if (args.empty() || !std::all_of(args.begin(), args.end(), IsPassable)) {
    return kNotStarted;
  }
  return strikes_.Program([&] {
    const OwnProcess process;
    return Run(args);
  });
}

std::string Programs::GetKeyValue(const std::string& file, const std::string& key) { return ReadSetting(file, key); }

int Programs::Run(const std::vector<std::string>& args) const {
  const std::string& program = args[0];
  if (program == path::kOrbaArchivePath || program == path::kTarPath) {
    return Archive(args);
  }
  if (program == path::kCpPath) {
    return Copy(args.at(2), args.at(3));
  }
  if (program == path::kRmPath) {
    return Remove(args.at(2));
  }
  if (program == path::kGetAppIdPyPath) {
    return ListIds(args.at(1));
  }
  if (program == path::kHealthProgramPath) {
    return answers_.health;
  }
  Require(program == path::kNotifyPluginPyPath, "the library starts no other program");
  return answers_.notified;
}

int Programs::ListIds(const std::string& file) const {
  plugins::AppIdAnswer answer;
  try {
    static_cast<void>(answer.Add(plugins::IdsIn(answers_.ids)));
  } catch (const std::invalid_argument&) {
    // left out
  }
  const std::string text = answers_.is_plain ? answers_.ids : answer.Text();
  Require(answers_.is_plain || text.size() <= updater::kJsonTextLimit, "an answer has a bound");
  std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  static_cast<void>(ReplaceFile(file, text, S_IRUSR | S_IWUSR, Durability::kVisible));
  return 0;
}

}  // namespace orbamira::fuzz::flow
