// The comparison of versions is a strict weak order over all texts. The input's first three lines are the versions.

#include "platform/version.h"

#include <array>
#include <string>

#include "tests/fuzz/fuzzing.h"

namespace {

using orbamira::fuzz::Require;

bool Older(const std::string& left, const std::string& right) { return orbamira::IsNewVersion(left, right); }

bool Equal(const std::string& left, const std::string& right) { return !Older(left, right) && !Older(right, left); }

void CheckOne(const std::string& version) {
  Require(!Older(version, version), "no version is newer than itself");
  Require(Equal(version, version + ".0"), "a missing part is 0");
  Require(Equal(version, version + "-000"), "zeros in front do not count");
  Require(Older(version, version + "_1"), "a further part makes it newer");
  Require(Older(version, version + ".a"), "a text is newer than a missing part");
}

// For all three in every place.
void CheckOrder(const std::array<std::string, 3>& versions) {
  bool older[3][3];
  for (std::size_t a = 0; a < 3; ++a) {
    for (std::size_t b = 0; b < 3; ++b) {
      older[a][b] = Older(versions[a], versions[b]);
    }
  }
  const auto equal = [&older](std::size_t a, std::size_t b) { return !older[a][b] && !older[b][a]; };
  for (std::size_t a = 0; a < 3; ++a) {
    for (std::size_t b = 0; b < 3; ++b) {
      Require(!older[a][b] || !older[b][a], "never newer both ways");
      for (std::size_t c = 0; c < 3; ++c) {
        Require(!older[a][b] || !older[b][c] || older[a][c], "newer is transitive");
        Require(!equal(a, b) || !equal(b, c) || equal(a, c), "equal is transitive");
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::string text = orbamira::fuzz::Text(data, size);
  std::array<std::string, 3> versions;
  for (std::string& version : versions) {
    version = orbamira::fuzz::TakeLine(text);
  }
  for (const std::string& version : versions) {
    CheckOne(version);
  }
  CheckOrder(versions);
  return 0;
}
