#include "tests/support/appliance.h"

#include <fcntl.h>
#include <json/reader.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/constants.h"
#include "tests/support/test_root.h"

namespace orbamira::test {
namespace {

namespace fs = std::filesystem;

std::string TemporaryName() {
  std::string name = (Root() / "program-XXXXXX").string();
  const int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), name);
  }
  close(fd);
  return name;
}

// Where the program is that a person starts.
std::string Program(const std::string& name) { return Root() / "usr/bin" / name; }

fs::path JournalPath() { return Root() / "journal"; }

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  std::istringstream stream(text);
  stream >> value;
  return value;
}

}  // namespace

RunningProgram::RunningProgram(const std::vector<std::string>& command, int terminal)
    : output_(TemporaryName()), errors_(TemporaryName()) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));  // NOLINT: posix_spawn does not write to it
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (terminal >= 0) {
    posix_spawn_file_actions_adddup2(&actions, terminal, STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_.c_str(), O_WRONLY, 0);
  }
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors_.c_str(), O_WRONLY, 0);
  const int error = posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), command[0]);
  }
}

RunningProgram::~RunningProgram() {
  if (pid_ > 0) {
    Signal(SIGKILL);
    Wait();
  }
}

void RunningProgram::Signal(int signal_number) const { kill(pid_, signal_number); }

std::string RunningProgram::Output() const { return ReadFile(output_); }

std::string RunningProgram::Errors() const { return ReadFile(errors_); }

ProgramResult RunningProgram::Wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), ReadFile(output_), ReadFile(errors_)};
}

Appliance::Appliance() : server_([this](const HttpRequest& request) { return Serve(request); }) {
  for (const auto& entry : fs::directory_iterator(Root())) {
    fs::remove_all(entry.path());
  }
  fs::copy(ORBAMIRA_TEST_APPLIANCE, Root(), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  WriteFile(path::kPkgSetting, std::string(common::kPackUpdateServer) + "=" + server_.Url("/reply.json") + "\n");
}

void Appliance::Publish(const std::string& version, const std::string& payload, const std::string& name) {
  const TempDir folder;
  WriteFile(folder.path() / "payload/codec", payload);
  RunningProgram mkpack({Program("mkpack"), "--payload", folder.File("payload"), "--output", (Root() / "srv").string(),
                         "--name", name, "--version", version, "--title", "Codec pack", "--base-url", server_.Url(""),
                         "--allow-older"});
  if (const ProgramResult result = mkpack.Wait(); result.status != 0) {
    throw std::runtime_error("mkpack: " + result.errors);
  }
}

std::vector<std::string> Appliance::PackctlCommand(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), Program("packctl"));
  return arguments;
}

ProgramResult Appliance::Packctl(const std::vector<std::string>& arguments) {
  return RunningProgram(PackctlCommand(arguments)).Wait();
}

void Appliance::AddPlugin(const std::string& name, const std::string& script) {
  const fs::path plugin = fs::path(path::kPluginFolder) / name;
  WriteFile(plugin, "#!/bin/sh\n" + script);
  fs::permissions(plugin, fs::perms(0755));
}

void Appliance::AddJournal() {
  AddPlugin("00-journal", "echo \"$2 $6 $4 $8 ${10}\" >> '" + JournalPath().string() + "'\n'" + Program("packctl") +
                              "' status --json >> '" + JournalPath().string() + "'\n");
}

std::vector<std::string> Appliance::Journal() {
  std::vector<std::string> entries;
  std::istringstream lines(ReadFile(JournalPath()));
  for (std::string told, record; std::getline(lines, told) && std::getline(lines, record);) {
    const Json::Value status = Parsed(record);
    entries.push_back(told + ": " + status["status"].asString() + " " + status["install_step"].asString());
  }
  return entries;
}

std::map<std::string, std::string> Appliance::StatusRecord() {
  std::map<std::string, std::string> record;
  if (const std::string text = ReadFile(path::kPackStatusFile); !text.empty()) {
    const Json::Value store = Parsed(text);
    for (const std::string& key : store.getMemberNames()) {
      record[key] = store[key].asString();
    }
  }
  return record;
}

std::string Appliance::InstalledPayload() { return ReadFile(fs::path(path::kPackFolderPath) / "codec"); }

HttpResponse Appliance::Serve(const HttpRequest& request) const {
  const fs::path file = Root() / "srv" / fs::path(request.target.substr(0, request.target.find('?'))).filename();
  HttpResponse response;
  if (fs::exists(file)) {
    response = ServeFile(request, ReadFile(file), "\"1\"");
  } else {
    response.status = 404;
  }
  Fault fault;
  {
    const std::lock_guard lock(fault_mutex_);
    fault = fault_;
  }
  if (fault) {
    fault(request, response);
  }
  return response;
}

}  // namespace orbamira::test
