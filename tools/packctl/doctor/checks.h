#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/cli/console.h"

/// What "packctl doctor" looks at, one function for each part of the machine. None of them changes anything, makes a
/// file that outlasts it or waits without a bound.
namespace orbamira::packctl {

/// Something that is wrong.
struct Finding {
  std::string check;    ///< the part of the machine: "keyring"
  std::string problem;  ///< a sentence without its end
  std::string remedy;   ///< what to do about it, likewise
};

using Findings = std::vector<Finding>;

/// Whether the user may look at all of it.
Findings CheckRights();

/// The settings files and what the update server is told about the machine.
Findings CheckSettings();

/// Who may write what is believed, whether we can write what is ours, and whether the programs are there.
Findings CheckPermissions();

/// The certificates that packages must be signed by; without a keyring, whether the way to the server is safe at least.
Findings CheckKeyring();

/// The files in the folder that are meant to be run, sorted: an executable one is. None without such a folder.
std::vector<std::filesystem::path> ProgramsIn(const std::filesystem::path& folder);

/// The programs that judge a pack's health.
Findings CheckHealthPrograms();

/// Asks each plugin for its application ids, which takes up to the plugins' time limit each.
Findings CheckPlugins(Console& console);

/// The lock files: whether somebody keeps one for long.
Findings CheckLocks();

/// Whether a packctl that changes something is at work.
bool ChangeIsUnderWay();

/// The record, the pack and the files around it. For a machine where nobody is at work.
Findings CheckState();

/// What the update server offers, as far as it is known.
struct OfferedPackage {
  std::optional<std::uint64_t> package_size = {};  ///< bytes
};

/// Asks the update server as a check does, but for at most half a minute, and looks at the reply, the package's address
/// and the server's clock.
Findings CheckServer(OfferedPackage& offer);

/// Whether there is room to download and unpack what is on offer.
Findings CheckSpace(const OfferedPackage& offer);

/// A file as the checks read it.
struct FileText {
  std::optional<std::string> text = {};  ///< up to a mebibyte of it; empty when it is missing or cannot be read
  std::string problem = {};              ///< why it cannot be read; empty when it is missing
};

/// Reads the file without waiting for one that is a pipe.
FileText ReadText(const std::filesystem::path& file);

/// "http" or "https" when the text is an address with that scheme and a host; empty otherwise.
std::string SchemeOf(const std::string& address);

}  // namespace orbamira::packctl
