// A package's payload. The input is the tar inside; the test adds the gzip around it, because a random checksum is
// always wrong. gzip.cpp tests the compression itself.

#include "tests/fuzz/fuzzing.h"
#include "tests/fuzz/stored_gzip.h"
#include "tests/fuzz/untar.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace orbamira;
  fuzz::UnpackAndCheck(fuzz::StoredGzip(fuzz::Text(data, size)), tools::Layer::kPayload);
  return 0;
}
