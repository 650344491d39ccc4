#include "platform/posix/pack_libraries.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

class PackLibrariesTest : public testing::Test {
 protected:
  std::string Make(const std::string& name, const std::string& text = "\177ELF and more") {
    test::WriteFile(folder_.File(name), text);
    return folder_.File(name);
  }

  test::TempDir folder_;
};

TEST_F(PackLibrariesTest, FindLibrariesGivesThemSortedFromEveryFolder) {
  const std::string last = Make("z.so");
  const std::string inner = Make("lib/inner/liba.so.12.3");
  const std::string first = Make("a.so.1", "\177ELF");
  EXPECT_THAT(FindLibraries(folder_.path()), ElementsAre(first, inner, last));
  EXPECT_TRUE(HasLibraries(folder_.path()));
}

TEST_F(PackLibrariesTest, FindLibrariesGoesByTheName) {
  for (const char* name :
       {"a.so.", "a.so.x", "a.so.1.debug", "a.so.debug", "so", "a.sox", "a.txt", "a.x.so.", "so.1"}) {
    Make(name);
  }
  EXPECT_THAT(FindLibraries(folder_.path()), IsEmpty());
  EXPECT_FALSE(HasLibraries(folder_.path()));
}

TEST_F(PackLibrariesTest, FindLibrariesGoesByTheFirstBytes) {
  Make("empty.so", "");
  Make("short.so", "\177EL");
  Make("text.so", "INPUT(libother.so)");
  EXPECT_THAT(FindLibraries(folder_.path()), IsEmpty());
}

TEST_F(PackLibrariesTest, FindLibrariesTakesNeitherLinksNorFolders) {
  const std::string library = Make("a.so.1");
  fs::create_symlink("a.so.1", folder_.File("a.so"));
  fs::create_directory(folder_.File("folder.so"));
  EXPECT_THAT(FindLibraries(folder_.path()), ElementsAre(library));
}

TEST_F(PackLibrariesTest, FindLibrariesReportsAFileThatCannotBeRead) {
  fs::permissions(test::Root(), fs::perms(0711));
  fs::permissions(folder_.path(), fs::perms(0755));
  fs::permissions(Make("a.so"), fs::perms::none);
  const test::OrdinaryUser user;
  try {
    FindLibraries(folder_.path());
    ADD_FAILURE() << "it was read";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), EACCES);
    EXPECT_THAT(error.what(), testing::StartsWith(folder_.File("a.so") + ": "));
  }
}

TEST_F(PackLibrariesTest, FindLibrariesReportsAMissingFolder) {
  EXPECT_THROW(FindLibraries(folder_.File("missing")), std::system_error);
  EXPECT_THROW(HasLibraries(folder_.File("missing")), std::system_error);
}

}  // namespace
}  // namespace orbamira
