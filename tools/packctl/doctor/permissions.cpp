#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/constants.h"
#include "tools/packctl/doctor/checks.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCheck = "permissions";

// Files that say what to fetch, from where and whom to believe.
void CheckTrust(const char* file, Findings& findings) {
  struct stat about {};
  if (stat(file, &about) != 0) {
    return;  // what is missing here is for other checks
  }
  const std::string name = file;
  if ((about.st_mode & S_IWOTH) != 0 ||
      ((about.st_mode & S_IWGRP) != 0 && about.st_gid != 0 && about.st_gid != getegid())) {
    findings.push_back(
        {kCheck, name + " may be written by others than its owner", "take that away: chmod go-w " + name});
  }
  if (about.st_uid != 0 && about.st_uid != geteuid()) {
    findings.push_back(
        {kCheck, name + " belongs to user " + std::to_string(about.st_uid), "give it to root: chown root " + name});
  }
}

void CheckAccount(Findings& findings) {
  const std::string file = path::kAccountFile;
  struct stat about {};
  if (stat(file.c_str(), &about) != 0) {
    if (errno != ENOENT) {
      findings.push_back({kCheck, file + " cannot be examined: " + std::generic_category().message(errno),
                          "make it a file of mode 0600 that belongs to root"});
    }
    return;
  }
  if (!S_ISREG(about.st_mode)) {
    findings.push_back({kCheck, file + " is no file", "remove it and sign in again"});
  } else if ((about.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    findings.push_back({kCheck, file + " is open to others, so the account is not used", "chmod 0600 " + file});
  }
}

void CheckProgram(const char* program, Findings& findings) {
  if (faccessat(AT_FDCWD, program, X_OK, AT_EACCESS) != 0 || !fs::is_regular_file(program)) {
    findings.push_back({kCheck, std::string(program) + " is missing or cannot be run", "install the package again"});
  }
}

// The folder, or the nearest above it that exists and in which it can be made.
void CheckWritable(fs::path folder, Findings& findings) {
  std::error_code error;
  while (fs::symlink_status(folder, error).type() == fs::file_type::not_found && folder.has_relative_path()) {
    folder = folder.parent_path();
  }
  if (!fs::is_directory(folder, error)) {
    findings.push_back({kCheck, folder.string() + " is no folder", "move it away and run \"packctl recover\""});
  } else if (faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    findings.push_back({kCheck, folder.string() + " cannot be written: " + std::generic_category().message(errno),
                        "run packctl as root and make the file system writable"});
  }
}

void CheckLockFolder(Findings& findings) {
  const std::string folder = fs::path(path::kPackctlLock).parent_path();
  struct stat about {};
  if (stat(folder.c_str(), &about) == 0 && (about.st_mode & S_IWOTH) != 0) {
    findings.push_back({kCheck, folder + " may be written by everyone, so anyone can hold up every update",
                        "take that away: chmod o-w " + folder});
  }
}

}  // namespace

Findings CheckPermissions() {
  Findings findings;
  for (const char* file : {path::kPkgSetting, path::kDefaultPkgSetting, path::kKeyring, kTargetFolder}) {
    CheckTrust(file, findings);
  }
  CheckAccount(findings);
  for (const char* program : {path::kOrbaArchivePath, path::kTarPath, path::kCpPath, path::kRmPath,
                              path::kNotifyPluginPyPath, path::kGetAppIdPyPath}) {
    CheckProgram(program, findings);
  }
  const fs::path state = path::kPackStatusFile;
  const fs::path lock = path::kPackctlLock;
  const fs::path answer = path::kTempPluginAppIdPath;
  for (const fs::path& folder : {fs::path(kTargetFolder), state.parent_path(), fs::path(kDownloadFolder),
                                 lock.parent_path(), answer.parent_path()}) {
    CheckWritable(folder, findings);
  }
  CheckLockFolder(findings);
  return findings;
}

}  // namespace orbamira::packctl
