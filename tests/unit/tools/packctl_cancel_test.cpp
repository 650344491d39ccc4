#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>

#include "tools/packctl/cli/cancel.h"

namespace orbamira::packctl {
namespace {

bool IsBlocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

// What follows the work, such as a reader that takes no answer, can be ended by a signal again.
TEST(CancelOnSignalsTest, BlocksTheSignalsForAsLongAsItLives) {
  const Console console;
  {
    const CancelOnSignals cancel(console);
    EXPECT_TRUE(IsBlocked(SIGINT));
    EXPECT_TRUE(IsBlocked(SIGTERM));
  }
  EXPECT_FALSE(IsBlocked(SIGINT));
  EXPECT_FALSE(IsBlocked(SIGTERM));
}

TEST(CancelOnSignalsTest, LeavesWhatWasBlockedBefore) {
  sigset_t interrupt;
  sigset_t before;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  pthread_sigmask(SIG_BLOCK, &interrupt, &before);
  const Console console;
  { const CancelOnSignals cancel(console); }
  EXPECT_TRUE(IsBlocked(SIGINT));
  EXPECT_FALSE(IsBlocked(SIGTERM));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
}  // namespace orbamira::packctl
