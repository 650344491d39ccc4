#include "tools/packctl/view/failure_words.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace orbamira::packctl {
namespace {

/// A cause that people meet often, and the words by which it is known.
struct KnownCause {
  std::string_view sign;
  std::string_view cause;  ///< followed by what stands behind the sign, in parentheses, where `keeps_rest`
  std::string_view remedy;
  bool keeps_rest = false;
  bool repeats = false;  ///< the remedy ends with the command that failed
};

constexpr std::string_view kDoctor = "Run: sudo packctl doctor";

// The first that is found counts: a full disk, say, is the reason for much else.
constexpr std::array kKnownCauses = {
    KnownCause{"No space left on device", "the disk is full", "Make room, then run: sudo packctl ", false, true},
    KnownCause{": not signed", "the package is not signed", "Get a signed package from its publisher."},
    KnownCause{"Failed to send request with error: ", "cannot reach the update server",
               "Check the network, then run: sudo packctl doctor", true},
    KnownCause{"Failed to send request with status: ", "the update server refuses the request", kDoctor, true},
    KnownCause{"Failed to download pack: ", "the package cannot be downloaded", kDoctor, true},
};

// What is known of the checksum comes after what the programs say: a package that they refuse counts as one that does
// not match it.
constexpr KnownCause kWrongChecksum{"Failed to verify checksum", "the package is not the one that the server announced",
                                    "Run: sudo packctl ", false, true};

std::string CauseOf(const KnownCause& known, const std::string& line) {
  std::string cause(known.cause);
  if (known.keeps_rest) {
    cause += " (" + line.substr(line.find(known.sign) + known.sign.size()) + ")";
  }
  return cause;
}

std::string RemedyOf(const KnownCause& known, const std::string& command) {
  return std::string(known.remedy) + (known.repeats ? command : "");
}

// What ended an operation, without the operation's name, since the command is named already; empty for other lines.
std::string EndOfOperation(const std::string& line) {
  for (const std::string_view operation :
       {"Check new pack failed: ", "Download and install failed: ", "Download failed: ", "Install failed: "}) {
    if (line.starts_with(operation)) {
      return line.substr(operation.size());
    }
  }
  return "";
}

const std::string* FindLine(const std::vector<std::string>& lines, std::string_view sign) {
  const auto found = std::find_if(lines.begin(), lines.end(),
                                  [&](const std::string& line) { return line.find(sign) != std::string::npos; });
  return found == lines.end() ? nullptr : &*found;
}

FailureWords Explain(const std::string& command, const std::vector<std::string>& programs,
                     const std::vector<std::string>& log, const std::vector<std::string>& problems) {
  for (const KnownCause& known : kKnownCauses) {
    for (const auto* lines : {&programs, &log, &problems}) {
      if (const std::string* line = FindLine(*lines, known.sign)) {
        return {CauseOf(known, *line), RemedyOf(known, command)};
      }
    }
  }
  if (const std::string* line = FindLine(programs, "orba-")) {
    return {*line, std::string(kDoctor)};
  }
  if (const std::string* line = FindLine(log, kWrongChecksum.sign)) {
    return {CauseOf(kWrongChecksum, *line), RemedyOf(kWrongChecksum, command)};
  }
  for (const std::string& line : log) {
    if (const std::string end = EndOfOperation(line); !end.empty()) {
      return {end, std::string(kDoctor)};
    }
  }
  const std::vector<std::string>& lines = log.empty() ? problems : log;
  return {lines.empty() ? "the reason is not known" : lines.front(), std::string(kDoctor)};
}

}  // namespace

FailureWords ExplainFailure(const std::string& command, const std::vector<std::string>& programs,
                            const std::vector<std::string>& log, const std::vector<std::string>& problems) {
  FailureWords words = Explain(command, programs, log, problems);
  if (FindLine(problems, "packctl recover") != nullptr) {
    words.remedy = "Run: sudo packctl recover";
  }
  return words;
}

std::string FailureSentence(const std::string& command, const FailureWords& words,
                            const std::optional<PackIdentity>& installed) {
  const std::string rest =
      installed ? "Version " + installed->version + " stays installed. " : "No codec pack is installed. ";
  std::string sentence = command + " failed: " + words.cause + ". " + rest + words.remedy;
  sentence.front() = static_cast<char>(sentence.front() - 'a' + 'A');
  return sentence;
}

}  // namespace orbamira::packctl
