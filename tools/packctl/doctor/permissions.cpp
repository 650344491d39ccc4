#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <optional>
#include <string>
#include <system_error>

#include "platform/constants.h"
#include "platform/posix/file_status.h"
#include "platform/posix/trust.h"
#include "tools/packctl/doctor/checks.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPermissions = "permissions";

// Empty for what cannot be looked at: that is for other checks.
std::string WhyPathIsDistrusted(const fs::path& path) {
  try {
    return WhyDistrusted(path.string());
  } catch (const std::system_error&) {
    return "";
  }
}

// Adds the path that others can change: this one, or the folder above it through which they can.
void AddDistrusted(fs::path path, std::map<fs::path, std::string>& distrusted) {
  std::string why = WhyPathIsDistrusted(path);
  if (why.empty()) {
    return;
  }
  for (std::string above; !(above = WhyPathIsDistrusted(path.parent_path())).empty() && path.has_relative_path();
       why = above) {
    path = path.parent_path();
  }
  distrusted[path] = why;
}

// What is asked for, from where, whom to believe, what is run, shown and installed: all of it is root's to say. The
// plugins have a check of their own.
std::vector<fs::path> WhatIsBelieved() {
  const fs::path programs = fs::path(path::kOrbaArchivePath).parent_path();
  const fs::path page = fs::path(path::kDefaultPkgSetting).parent_path() / "web";
  std::vector<fs::path> believed = {path::kPkgSetting,
                                    path::kDefaultPkgSetting,
                                    common::kDefaultOrbaInfoPath,
                                    common::kDefaultVersionPath,
                                    kPackageInfoPath,
                                    path::kKeyring,
                                    path::kAccountFile,
                                    path::kPackStatusFile,
                                    path::kHistoryFile,
                                    kTargetFolder,
                                    path::kPackInfoPath,
                                    kDownloadFolder,
                                    path::kOrbaArchivePath,
                                    path::kTarPath,
                                    path::kCpPath,
                                    path::kRmPath,
                                    path::kNotifyPluginPyPath,
                                    path::kGetAppIdPyPath,
                                    path::kHealthProgramPath,
                                    programs / "orba-load",
                                    programs / "orba-account",
                                    page,
                                    fs::path(path::kTempPluginAppIdPath).parent_path(),
                                    fs::path(path::kPackctlLock).parent_path()};
  if (fs::exists(StatusOf(path::kHealthFolder))) {
    believed.emplace_back(path::kHealthFolder);
  }
  const std::vector<fs::path> judges = ProgramsIn(path::kHealthFolder);
  believed.insert(believed.end(), judges.begin(), judges.end());
  std::error_code error;  // without a page there is nothing to show
  for (const fs::directory_entry& file : fs::directory_iterator(page, error)) {
    believed.push_back(file.path());
  }
  return believed;
}

void CheckTrust(Findings& findings) {
  std::map<fs::path, std::string> distrusted;
  for (const fs::path& path : WhatIsBelieved()) {
    AddDistrusted(path.parent_path(), distrusted);
    AddDistrusted(path, distrusted);
  }
  for (const auto& [path, why] : distrusted) {
    findings.push_back(
        {kPermissions, path.string() + ": " + why,
         "let root alone own and write it: chown root " + path.string() + "; chmod go-w " + path.string()});
  }
}

void CheckAccount(Findings& findings) {
  const std::string file = path::kAccountFile;
  struct stat about {};
  if (stat(file.c_str(), &about) != 0) {
    if (errno != ENOENT) {
      findings.push_back({kPermissions, file + " cannot be examined: " + std::generic_category().message(errno),
                          "make it a file of mode 0600 that belongs to root"});
    }
    return;
  }
  if (!S_ISREG(about.st_mode)) {
    findings.push_back({kPermissions, file + " is not a file", "remove it and sign in again"});
  } else if ((about.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    findings.push_back({kPermissions, file + " is open to others, so the account is not used", "chmod 0600 " + file});
  }
}

void CheckProgram(const char* program, Findings& findings) {
  if (faccessat(AT_FDCWD, program, X_OK, AT_EACCESS) != 0 || !fs::is_regular_file(StatusOf(program))) {
    findings.push_back(
        {kPermissions, std::string(program) + " is missing or cannot be run", "install the package again"});
  }
}

// The folder, or the nearest above it that exists and in which it can be made.
void CheckWritable(fs::path folder, Findings& findings) {
  std::error_code error;
  while (LinkStatusOf(folder, error).type() == fs::file_type::not_found && folder.has_relative_path()) {
    folder = folder.parent_path();
  }
  if (!fs::is_directory(StatusOf(folder, error))) {
    findings.push_back(
        {kPermissions, folder.string() + " is not a folder", "move it away and run \"packctl recover\""});
  } else if (faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    findings.push_back({kPermissions, folder.string() + " cannot be written: " + std::generic_category().message(errno),
                        "run packctl as root and make the file system writable"});
  }
}

// Who owns the folder of the packs, or the one above it that is there.
std::optional<uid_t> OwnerOfPacks() {
  struct stat about {};
  for (fs::path folder = kTargetFolder; folder.has_relative_path(); folder = folder.parent_path()) {
    if (stat(folder.c_str(), &about) == 0) {
      return about.st_uid;
    }
  }
  return std::nullopt;
}

}  // namespace

Findings CheckRights() {
  if (geteuid() == 0 || OwnerOfPacks() == geteuid()) {
    return {};
  }
  return {{"rights", "you are not root, so this cannot look at everything", "run \"sudo packctl doctor\""}};
}

Findings CheckPermissions() {
  Findings findings;
  CheckTrust(findings);
  CheckAccount(findings);
  for (const char* program : {path::kOrbaArchivePath, path::kTarPath, path::kCpPath, path::kRmPath,
                              path::kNotifyPluginPyPath, path::kGetAppIdPyPath, path::kHealthProgramPath}) {
    CheckProgram(program, findings);
  }
  const fs::path state = path::kPackStatusFile;
  const fs::path lock = path::kPackctlLock;
  const fs::path answer = path::kTempPluginAppIdPath;
  for (const fs::path& folder : {fs::path(kTargetFolder), state.parent_path(), fs::path(kDownloadFolder),
                                 lock.parent_path(), answer.parent_path()}) {
    CheckWritable(folder, findings);
  }
  return findings;
}

}  // namespace orbamira::packctl
