// A package as it was downloaded: a plain tar.

#include "tests/fuzz/fuzzing.h"
#include "tests/fuzz/untar.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  orbamira::fuzz::UnpackAndCheck(orbamira::fuzz::Text(data, size), orbamira::tools::Layer::kPackage);
  return 0;
}
