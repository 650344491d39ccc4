// What is signed of a package: its manifest. Whatever it says is of a form that can be compared, printed and kept.

#include "tools/orba-archive/manifest.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "platform/version.h"
#include "tests/fuzz/fuzzing.h"

namespace {

using orbamira::fuzz::Require;

bool IsPlain(const std::string& text) {
  return text.size() <= 128 &&
         text.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ._+-") ==
             std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text = orbamira::fuzz::Text(data, size);
  orbamira::tools::Manifest manifest;
  try {
    manifest = orbamira::tools::ParseManifest(text);
  } catch (const std::runtime_error&) {
    return 0;
  }
  const bool says_more = text.starts_with('#');
  Require(manifest.format == (says_more ? 2 : 1), "comments make the format");
  for (const std::string& name : {manifest.product, manifest.pack, manifest.version}) {
    Require(IsPlain(name) && name.empty() != says_more, "names are plain, and there in format 2 alone");
  }
  Require(IsPlain(manifest.minimum), "the minimum is plain");
  Require(!orbamira::IsNewVersion(manifest.version, manifest.minimum), "no minimum is above the version");
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  Require(manifest.digests.size() <= lines, "each digest has a line");
  for (const auto& [name, digest] : manifest.digests) {
    Require(!name.empty() && digest.size() == 64, "each digest has a name");
  }
  return 0;
}
