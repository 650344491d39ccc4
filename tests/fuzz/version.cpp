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

void CheckThree(const std::string& a, const std::string& b, const std::string& c) {
  Require(!Older(a, b) || !Older(b, a), "never newer both ways");
  Require(!Older(a, b) || !Older(b, c) || Older(a, c), "newer is transitive");
  Require(!Equal(a, b) || !Equal(b, c) || Equal(a, c), "equal is transitive");
  Require(!Equal(a, b) || Older(a, c) == Older(b, c), "equal versions compare alike");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::string text = orbamira::fuzz::Text(data, size);
  std::array<std::string, 3> versions;
  for (std::string& version : versions) {
    version = orbamira::fuzz::TakeLine(text);
  }
  for (const std::string& a : versions) {
    CheckOne(a);
    for (const std::string& b : versions) {
      for (const std::string& c : versions) {
        CheckThree(a, b, c);
      }
    }
  }
  return 0;
}
