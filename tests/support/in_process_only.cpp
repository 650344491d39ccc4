#include "tests/support/restrictions.h"

namespace {

// After test_main has made the copy of the process that runs the tests.
constexpr int kAfterTestMain = 102;

[[gnu::constructor(kAfterTestMain)]] void StartNoProcess() { orbamira::test::RefuseProcesses(); }

}  // namespace
