#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <functional>
#include <iterator>
#include <system_error>

#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/doctor/checks.h"

namespace orbamira::packctl {

FileText ReadText(const std::filesystem::path& file) {
  constexpr std::size_t kMost = 1UL << 20U;
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd.valid()) {
    return {.problem = errno == ENOENT ? "" : std::generic_category().message(errno)};
  }
  struct stat about {};
  if (fstat(fd.get(), &about) != 0 || !S_ISREG(about.st_mode)) {
    return {.problem = "it is not a file"};
  }
  try {
    std::string text(kMost, '\0');
    text.resize(ReadFully(fd.get(), text.data(), text.size(), file));
    return {.text = std::move(text)};
  } catch (const std::system_error& error) {
    return {.problem = error.code().message()};
  }
}

std::string SchemeOf(const std::string& address) {
  for (const char* scheme : {"http", "https"}) {
    const std::string front = std::string(scheme) + "://";
    const bool has_host = address.size() > front.size() && address.find_first_of("/?#:", front.size()) != front.size();
    if (address.starts_with(front) && has_host && address.find_first_of(" \t\r\n\"'") == std::string::npos) {
      return scheme;
    }
  }
  return "";
}

Outcome Doctor(Context& context) {
  OfferedPackage offer;
  const std::vector<std::function<Findings()>> checks = {
      CheckRights,  // first, because it may be why the others find something
      CheckSettings,
      CheckPermissions,
      CheckKeyring,
      CheckHealthPrograms,
      [&context] { return CheckPlugins(context.console); },
      CheckLocks,
      [] { return ChangeIsUnderWay() ? Findings() : CheckState(); },
      [&offer] { return CheckServer(offer); },
      [&offer] { return CheckSpace(offer); },
  };
  Outcome outcome;
  Json::Value& findings = outcome.members["findings"] = Json::arrayValue;
  for (const auto& check : checks) {
    for (const Finding& finding : check()) {
      Json::Value entry;
      entry["check"] = finding.check;
      entry["problem"] = finding.problem;
      entry["remedy"] = finding.remedy;
      findings.append(entry);
      outcome.text += Printable(finding.check + ": " + finding.problem) + ".\n    " + Printable(finding.remedy) + ".\n";
    }
  }
  // What was logged on the way is what the findings tell.
  context.console.TakeHeld();
  const bool well = findings.empty();
  outcome.result = well ? "well" : "faults";
  outcome.exit = well ? kExitDone : kExitFailed;
  if (well) {
    outcome.text = "No fault was found.\n";
  }
  return outcome;
}

}  // namespace orbamira::packctl
