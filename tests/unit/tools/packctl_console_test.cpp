#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "tests/support/test_root.h"
#include "tools/packctl/cli/console.h"

namespace orbamira::packctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

void WriteTo(int fd, const std::string& text) {
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

/// Lets the standard output and error go to files while a test speaks to a console.
class ConsoleTest : public testing::Test {
 protected:
  ConsoleTest() : stdout_(Redirect(STDOUT_FILENO, "out")), stderr_(Redirect(STDERR_FILENO, "err")) {}

  ~ConsoleTest() override {
    dup2(stdout_, STDOUT_FILENO);
    dup2(stderr_, STDERR_FILENO);
    close(stdout_);
    close(stderr_);
  }

  [[nodiscard]] std::string Output() const { return test::ReadFile(folder_.File("out")); }
  [[nodiscard]] std::string Errors() const { return test::ReadFile(folder_.File("err")); }

 private:
  [[nodiscard]] int Redirect(int fd, const std::string& name) const {
    const int kept = dup(fd);
    const int file = open(folder_.File(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(file, fd);
    close(file);
    return kept;
  }

  test::TempDir folder_;
  int stdout_;
  int stderr_;
};

TEST_F(ConsoleTest, PrintAndComplainReachTheUser) {
  const Console console;
  EXPECT_TRUE(console.Print("{}\n"));
  console.Complain("no");
  EXPECT_EQ(Output(), "{}\n");
  EXPECT_EQ(Errors(), "packctl: no\n");
}

TEST_F(ConsoleTest, ComplainKeepsControlCharactersFromTheTerminal) {
  const Console console;
  console.Complain("a\033[2Jb\nc");
  EXPECT_EQ(Errors(), "packctl: a\\033[2Jb\\012c\n");
}

TEST_F(ConsoleTest, WholeLinesOfOthersAreGivenOutBeforeTheEnd) {
  Console console;
  WriteTo(STDERR_FILENO, "one\npackctl[1]: file.cpp:2 logged\ntw");
  EXPECT_THAT(console.TakeOther(), ElementsAre("one"));
  EXPECT_THAT(console.TakeOther(), IsEmpty());
  WriteTo(STDERR_FILENO, "o\nthree");
  EXPECT_THAT(console.TakeOther(), ElementsAre("two"));
  const Console::Held held = console.TakeHeld();
  EXPECT_THAT(held.log, ElementsAre("logged"));
  EXPECT_THAT(held.other, ElementsAre("three"));
}

TEST_F(ConsoleTest, WhatTheUpdatersProgramsSayWaitsForTheEnd) {
  Console console;
  WriteTo(STDERR_FILENO, "player: one\norba-archive: not signed\nplayer: two\n");
  EXPECT_THAT(console.TakeOther(), ElementsAre("player: one", "player: two"));
  EXPECT_THAT(console.TakeHeld().other, ElementsAre("orba-archive: not signed"));
}

TEST_F(ConsoleTest, WhatOthersWriteIsHeldBack) {
  const Console console;
  WriteTo(STDOUT_FILENO, "stray\n");
  WriteTo(STDERR_FILENO, "noise\n");
  EXPECT_EQ(Output(), "");
  EXPECT_EQ(Errors(), "");
}

TEST_F(ConsoleTest, StandardStreamsAreGivenBackAtTheEnd) {
  { const Console console; }
  WriteTo(STDOUT_FILENO, "after\n");
  WriteTo(STDERR_FILENO, "after\n");
  EXPECT_EQ(Output(), "after\n");
  EXPECT_EQ(Errors(), "after\n");
}

TEST_F(ConsoleTest, TakeHeldTellsTheLogFromTheRest) {
  Console console;
  WriteTo(STDERR_FILENO, "packctl[12]: pack_manager.cpp:213 Failed to send request with status: 404\n");
  WriteTo(STDOUT_FILENO, "orba-archive: truncated\n\n");
  WriteTo(STDERR_FILENO, "packctl[12]: without a source\n");
  const Console::Held held = console.TakeHeld();
  EXPECT_THAT(held.log, ElementsAre("Failed to send request with status: 404", "without a source"));
  EXPECT_THAT(held.other, ElementsAre("orba-archive: truncated"));
}

TEST_F(ConsoleTest, TakeHeldTakesOnlyAWholeSourceForOne) {
  Console console;
  for (const char* message : {"a b.cpp:1 x", "a.cpp:x y", "a.cpp: y", ":1 y", "a.cpp:12", "a.cpp", ""}) {
    WriteTo(STDERR_FILENO, std::string("packctl[1]: ") + message + "\n");
    EXPECT_THAT(console.TakeHeld().log, ElementsAre(message));
  }
  for (const char* line : {"packctl: x", "packctl[]: x", "packctl[1] x", "other[1]: x", " packctl[1]: x"}) {
    WriteTo(STDERR_FILENO, std::string(line) + "\n");
    EXPECT_THAT(console.TakeHeld().other, ElementsAre(line));
  }
}

TEST_F(ConsoleTest, TakeHeldTakesMessagesOfAnyLength) {
  Console console;
  const std::string link(60'000, 'x');
  WriteTo(STDERR_FILENO, "packctl[12]: pack_handler.cpp:31 " + link + "\n");
  EXPECT_THAT(console.TakeHeld().log, ElementsAre(link));
  WriteTo(STDERR_FILENO, "packctl[12]: " + link + "\n");
  EXPECT_THAT(console.TakeHeld().log, ElementsAre(link));
}

TEST_F(ConsoleTest, TakeHeldGivesEachLineOnce) {
  Console console;
  WriteTo(STDERR_FILENO, "one\n");
  EXPECT_THAT(console.TakeHeld().other, ElementsAre("one"));
  EXPECT_THAT(console.TakeHeld().other, IsEmpty());
  WriteTo(STDERR_FILENO, "two\n");
  EXPECT_THAT(console.TakeHeld().other, ElementsAre("two"));
}

TEST_F(ConsoleTest, TakeHeldIsBounded) {
  Console console;
  for (int line = 0; line < 3000; ++line) {
    WriteTo(STDERR_FILENO, std::string(1023, 'x') + "\n");
  }
  EXPECT_THAT(console.TakeHeld().other, SizeIs(64));
  EXPECT_THAT(console.TakeHeld().other, IsEmpty());
}

TEST_F(ConsoleTest, TakeHeldGivesTheMemoryBackAndGoesOn) {
  Console console;
  WriteTo(STDOUT_FILENO, std::string(1UL << 20, 'x') + "\n");
  console.TakeHeld();
  struct stat held {};
  ASSERT_EQ(fstat(STDOUT_FILENO, &held), 0);
  EXPECT_LE(held.st_blocks, 2 * 4096 / 512);
  WriteTo(STDERR_FILENO, "next\n");
  EXPECT_THAT(console.TakeHeld().other, ElementsAre("next"));
}

TEST_F(ConsoleTest, PrintReportsAFullDisk) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  dup2(full, STDOUT_FILENO);
  close(full);
  const Console console;
  EXPECT_FALSE(console.Print("text\n"));
  EXPECT_TRUE(console.Print(""));
}

TEST_F(ConsoleTest, ColumnsComeFromTheEnvironmentWithoutATerminal) {
  const Console console;
  EXPECT_FALSE(console.IsTerminal());
  setenv("COLUMNS", "132", 1);
  EXPECT_EQ(console.Columns(), 132);
  for (const char* useless : {"", "-3", "0", "wide", "99999999999999999999"}) {
    setenv("COLUMNS", useless, 1);
    EXPECT_EQ(console.Columns(), 80) << useless;
  }
  unsetenv("COLUMNS");
  EXPECT_EQ(console.Columns(), 80);
}

}  // namespace
}  // namespace orbamira::packctl
