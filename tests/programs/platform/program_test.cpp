#include "platform/posix/program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/forked.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

bool Holds(const std::function<bool()>& body) {
  return test::Forked([&] { return body() ? 0 : 1; }).Wait() == 0;
}

TEST(OpenStandardStreamsTest, OpensThoseThatAreClosedAndNoMore) {
  for (const int closed : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    EXPECT_TRUE(Holds([&] {
      const int next = dup(STDIN_FILENO);  // the lowest that is free
      close(next);
      close(closed);
      OpenStandardStreams();
      return fcntl(closed, F_GETFD) == 0 && fcntl(next, F_GETFD) < 0;
    })) << closed;
  }
}

TEST(OpenStandardStreamsTest, SaysWhenThereIsNothingToOpen) {
  EXPECT_TRUE(Holds([] {
    test::FailSystemCall(SYS_openat, EACCES);
    try {
      OpenStandardStreams();
    } catch (const std::system_error& error) {
      return error.code().value() == EACCES;
    }
    return false;
  }));
}

TEST(IgnoreOutputSignalsTest, AReaderThatIsGoneIsAnErrorOfTheWrite) {
  EXPECT_TRUE(Holds([] {
    std::signal(SIGPIPE, SIG_DFL);
    IgnoreOutputSignals();
    std::array<int, 2> ends{};
    return pipe(ends.data()) == 0 && close(ends[0]) == 0 && write(ends[1], "x", 1) < 0 && errno == EPIPE;
  }));
}

TEST(PrintAllTest, SaysWhetherAllWasPrinted) {
  const test::TempDir folder;
  const std::string file = folder.File("file");
  const auto printed_to = [](const std::string& path) {
    return Holds(
        [&] { return std::freopen(path.c_str(), "w", stdout) != nullptr && PrintAll("text\n") == EXIT_SUCCESS; });
  };
  EXPECT_TRUE(printed_to(file));
  EXPECT_EQ(test::ReadFile(file), "text\n");
  EXPECT_FALSE(printed_to("/dev/full"));
}

TEST(AnswerHelpTest, AnswersTheOneArgumentAlone) {
  const auto answers = [](std::initializer_list<const char*> words) {
    std::vector<char*> arguments;
    for (const char* word : words) {
      arguments.push_back(const_cast<char*>(word));
    }
    return Holds([&] {
      return std::freopen("/dev/null", "w", stdout) != nullptr &&
             AnswerHelp(static_cast<int>(arguments.size()), arguments.data(), "usage", "1.0") == EXIT_SUCCESS;
    });
  };
  EXPECT_TRUE(answers({"program", "--help"}));
  EXPECT_TRUE(answers({"program", "--version"}));
  EXPECT_FALSE(answers({"program"}));
  EXPECT_FALSE(answers({"program", "--helpless"}));
  EXPECT_FALSE(answers({"program", "--help", "more"}));
}

}  // namespace
}  // namespace orbamira
