#include "tools/packctl/view/release_words.h"

#include <array>
#include <cstdio>

#include "platform/printable.h"

namespace orbamira::packctl {

std::string StagedWords(const StagedRelease& release) {
  std::array<char, 32> percent{};
  static_cast<void>(std::snprintf(percent.data(), percent.size(), "%g", release.percent));
  return Printable(release.version) + " is offered to " + percent.data() +
         " % of the appliances so far, and not to this one";
}

std::string OtherReleasesLines(const OtherReleases& others) {
  std::string lines;
  if (others.staged) {
    lines += StagedWords(*others.staged) + ". To install it now: sudo packctl update --now\n";
  }
  if (!others.withdrawn.empty()) {
    lines += "The maker has withdrawn " + Printable(others.withdrawn) + ". It stays until a newer release comes.\n";
  }
  return lines;
}

}  // namespace orbamira::packctl
