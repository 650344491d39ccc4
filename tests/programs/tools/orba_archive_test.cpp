#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/accepted_packages.h"
#include "platform/constants.h"
#include "tests/support/error_text.h"
#include "tests/support/package_signer.h"
#include "tests/support/process.h"
#include "tests/support/restrictions.h"
#include "tests/support/tar.h"
#include "tests/support/test_root.h"
#include "tests/support/written_folders.h"
#include "tools/packctl/view/failure_words.h"

namespace orbamira::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::string Gzip(const std::string& data) {
  std::string out;
  const auto append = [](archive*, void* text, const void* bytes, size_t size) -> la_ssize_t {
    static_cast<std::string*>(text)->append(static_cast<const char*>(bytes), size);
    return static_cast<la_ssize_t>(size);
  };
  archive* writer = archive_write_new();
  archive_write_set_format_raw(writer);
  archive_write_add_filter_gzip(writer);
  archive_write_set_filter_option(writer, "gzip", "timestamp", nullptr);
  archive_write_set_bytes_in_last_block(writer, 1);
  archive_write_open(writer, &out, nullptr, append, nullptr);
  archive_entry* entry = archive_entry_new();
  archive_entry_set_filetype(entry, AE_IFREG);
  archive_write_header(writer, entry);
  archive_write_data(writer, data.data(), data.size());
  archive_entry_free(entry);
  archive_write_close(writer);
  archive_write_free(writer);
  return out;
}

struct stat Status(const fs::path& path) {
  struct stat status = {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

unsigned Mode(const fs::path& path) { return Status(path).st_mode & 07777; }

/// Every name below the folder with its type, mode and content.
std::map<std::string, std::string> Snapshot(const fs::path& folder, const fs::path& but_for = {}) {
  std::map<std::string, std::string> snapshot;
  for (auto i = fs::recursive_directory_iterator(folder); i != fs::recursive_directory_iterator(); ++i) {
    if (i->path() == but_for) {
      i.disable_recursion_pending();
      continue;
    }
    const struct stat status = Status(i->path());
    snapshot[i->path()] = std::to_string(status.st_mode) + " " + std::to_string(status.st_nlink) + " " +
                          (S_ISREG(status.st_mode)   ? ReadFile(i->path())
                           : S_ISLNK(status.st_mode) ? fs::read_symlink(i->path()).string()
                                                     : "");
  }
  return snapshot;
}

enum class Program { kArchive, kTar };

/// A folder to unpack into, with something to protect around it.
class OrbaArchiveTest : public testing::Test {
 protected:
  OrbaArchiveTest() {
    WriteFile(folder_.path() / "canary", "alive");
    fs::create_directories(out_);
  }

  static ProcessResult Run(Program program, std::vector<std::string> arguments, const ProcessOptions& options = {}) {
    arguments.insert(arguments.begin(),
                     std::string(ORBA_TOOLS) + (program == Program::kTar ? "/orba-tar" : "/orba-archive"));
    return RunProgram(arguments, options);
  }

  ProcessResult Unpack(Program program, const std::string& bytes, const std::vector<std::string>& more = {},
                       const ProcessOptions& options = {}) const {
    WriteFile(archive_, bytes);
    std::vector<std::string> arguments = {"-xf", archive_, "-C", out_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(program, arguments, options);
  }

  ProcessResult UnpackPayload(const Tar& tar, const std::vector<std::string>& more = {}) const {
    return Unpack(Program::kTar, Gzip(tar.Bytes()), more);
  }

  /// With one file of this size, in bytes, whose contents begin with the map of its holes: GNU tar's format 1.0.
  static Tar SparseFile(const std::string& name, const std::string& size, const std::string& map) {
    return Tar()
        .Extended({{"GNU.sparse.major", "1"},
                   {"GNU.sparse.minor", "0"},
                   {"GNU.sparse.realsize", size},
                   {"GNU.sparse.name", name}})
        .File(name, map);
  }

  /// The archive is refused with one line that gives the reason, and nothing changed outside the folder.
  void ExpectRefused(Program program, const std::string& bytes, const std::string& reason,
                     const std::vector<std::string>& more = {}, const ProcessOptions& options = {}) const {
    WriteFile(archive_, bytes);
    const auto before = Snapshot(folder_.path(), out_);
    const ProcessResult result = Unpack(program, bytes, more, options);
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_THAT(result.err,
                StartsWith((program == Program::kTar ? "orba-tar: " : "orba-archive: ") + archive_.string() + ": "));
    EXPECT_THAT(result.err, HasSubstr(reason));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(Snapshot(folder_.path(), out_), before);
    const std::string line = result.err.substr(0, result.err.find('\n'));
    const std::string code = reason == "bytes that are free"                             ? "no_space"
                             : reason.find("not a number of bytes") != std::string::npos ? "bad_setting"
                                                                                         : "bad_package";
    EXPECT_EQ(packctl::ExplainFailure("update", {.programs = {line}}).code, code) << line;
  }
  void ExpectPayloadRefused(const Tar& tar, const std::string& reason,
                            const std::vector<std::string>& more = {}) const {
    ExpectRefused(Program::kTar, Gzip(tar.Bytes()), reason, more);
  }
  void ExpectPackageRefused(const Tar& tar, const std::string& reason) const {
    ExpectRefused(Program::kArchive, tar.Bytes(), reason);
  }

  TempDir folder_;
  fs::path out_ = folder_.path() / "around/out";
  fs::path archive_ = folder_.path() / "archive";
};

// What a pack is made of.

TEST_F(OrbaArchiveTest, UnpacksAPackageAndThenItsPayload) {
  const std::string payload = Gzip(Tar().Folder("lib").File("lib/codec.so", std::string(700'000, 'x'), 0755).Bytes());
  ProcessResult result =
      Unpack(Program::kArchive, Tar().File("INFO", "version=\"2\"\n").File("package.tgz", payload).Bytes());
  ASSERT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(ReadFile(out_ / "package.tgz"), payload);
  result = Run(Program::kTar, {"-xf", out_ / "package.tgz", "-C", out_});
  ASSERT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(result.out + result.err, "");
  EXPECT_EQ(ReadFile(out_ / "INFO"), "version=\"2\"\n");
  EXPECT_EQ(ReadFile(out_ / "lib/codec.so"), std::string(700'000, 'x'));
}

TEST_F(OrbaArchiveTest, UnpacksWhatTheSystemsTarPacks) {
  const fs::path tree = folder_.path() / "tree";
  WriteFile(tree / "bin/decode", std::string(300'001, 'b'));
  WriteFile(tree / std::string(120, 'n') / std::string(150, 'm'), "long");
  WriteFile(tree / "größe", "umlaut");
  WriteFile(tree / "empty", "");
  fs::create_symlink("../bin/decode", tree / std::string(120, 'n') / "link");
  fs::create_hard_link(tree / "bin/decode", tree / "same");
  fs::permissions(tree / "bin/decode", fs::perms(0755));
  fs::permissions(tree / "empty", fs::perms(0444));
  for (const char* format : {"--format=gnu", "--format=pax"}) {
    ASSERT_TRUE(RunProgram({"tar", format, "-czf", archive_, "-C", tree, "."}).Exited(0));
    const ProcessResult result = Run(Program::kTar, {"-xf", archive_, "-C", out_});
    EXPECT_TRUE(result.Exited(0)) << result;
    const ProcessResult difference = RunProgram({"diff", "-r", "--no-dereference", tree, out_});
    EXPECT_TRUE(difference.Exited(0)) << difference;
    EXPECT_EQ(Mode(out_ / "bin/decode"), 0755U);
    EXPECT_EQ(Mode(out_ / "empty"), 0444U);
    EXPECT_EQ(Status(out_ / "same").st_ino, Status(out_ / "bin/decode").st_ino);
    fs::remove_all(out_);
    fs::create_directory(out_);
  }
}

TEST_F(OrbaArchiveTest, KeepsTheHolesOfASparseFile) {
  const fs::path tree = folder_.path() / "tree";
  WriteFile(tree / "sparse", "begin");
  fs::resize_file(tree / "sparse", 5'000'000);
  const int fd = open((tree / "sparse").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(pwrite(fd, "middle", 6, 3'000'000), 6);
  close(fd);
  for (const char* format : {"--format=gnu", "--format=pax"}) {
    ASSERT_TRUE(RunProgram({"tar", format, "-S", "-czf", archive_, "-C", tree, "sparse"}).Exited(0));
    ASSERT_TRUE(Run(Program::kTar, {"-xf", archive_, "-C", out_}).Exited(0));
    EXPECT_EQ(ReadFile(out_ / "sparse"), ReadFile(tree / "sparse"));
    fs::remove(out_ / "sparse");
  }
  fs::resize_file(tree / "sparse", 20'000'000'000);
  ASSERT_TRUE(RunProgram({"tar", "-S", "-czf", archive_, "-C", tree, "sparse"}).Exited(0));
  const ProcessResult result = Run(Program::kTar, {"-xf", archive_, "-C", out_});
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, HasSubstr("sparse: unpacks to more than the limit of 17179869184 bytes"));
  EXPECT_FALSE(fs::exists(out_ / "sparse"));
}

TEST_F(OrbaArchiveTest, UnpacksAByteThatIsAHole) {
  const std::string no_data = "0\n" + std::string(510, '\0');
  ASSERT_TRUE(UnpackPayload(SparseFile("hole", "1", no_data)).Exited(0));
  EXPECT_EQ(ReadFile(out_ / "hole"), std::string(1, '\0'));
}

TEST_F(OrbaArchiveTest, SaysThatTheDiskRefusesAHole) {
  const fs::path tree = folder_.path() / "tree";
  WriteFile(tree / "sparse", "begin");
  fs::resize_file(tree / "sparse", 5'000'000);
  ASSERT_TRUE(RunProgram({"tar", "-S", "-czf", archive_, "-C", tree, "sparse"}).Exited(0));
  ProcessOptions options;
  options.before_exec = [] { FailSystemCall(SYS_ftruncate, EIO); };
  const ProcessResult failed = Run(Program::kTar, {"-xf", archive_, "-C", out_}, options);
  EXPECT_TRUE(failed.Exited(1)) << failed;
  EXPECT_THAT(failed.err, HasSubstr("sparse: " + ErrorText(EIO)));
}

TEST_F(OrbaArchiveTest, GivesModesOfItsOwnWhateverTheUmask) {
  Tar tar;
  tar.Folder("closed", 0).Folder("open", 07777).File("closed/all", "x", 07777).File("none", "x", 0);
  tar.File("implied/file", "x", 0666);
  ProcessOptions options;
  for (const mode_t mask : {0U, 022U, 077U}) {
    options.before_exec = [=] { umask(mask); };
    ASSERT_TRUE(Unpack(Program::kTar, Gzip(tar.Bytes()), {}, options).Exited(0));
    EXPECT_EQ(Mode(out_ / "closed"), 0700U);
    EXPECT_EQ(Mode(out_ / "open"), 0755U);
    EXPECT_EQ(Mode(out_ / "closed/all"), 0755U);
    EXPECT_EQ(Mode(out_ / "none"), 0U);
    EXPECT_EQ(Mode(out_ / "implied"), 0755U);
    EXPECT_EQ(Mode(out_ / "implied/file"), 0644U);
    fs::remove_all(out_);
    fs::create_directory(out_);
  }
}

TEST_F(OrbaArchiveTest, TakesNeitherTimeNorOwnerFromTheArchive) {
  const time_t before = time(nullptr);
  ASSERT_TRUE(UnpackPayload(Tar().File("file")).Exited(0));
  EXPECT_GE(Status(out_ / "file").st_mtim.tv_sec, before - 1);
  EXPECT_EQ(Status(out_ / "file").st_uid, geteuid());
  EXPECT_EQ(Status(out_ / "file").st_gid, Status(out_).st_gid);
}

TEST_F(OrbaArchiveTest, AcceptsNamesWithDotsAndSlashesToSpare) {
  const ProcessResult result = UnpackPayload(Tar().Folder("./").Folder("./a//").File("./a/./b"));
  ASSERT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(ReadFile(out_ / "a/b"), "data");
}

TEST_F(OrbaArchiveTest, KeepsSymbolicLinksThatStayInside) {
  const ProcessResult result =
      UnpackPayload(Tar().Symlink("a/b/up", "../../top").Symlink("side", "a/b/up").Symlink("here", "."));
  ASSERT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(fs::read_symlink(out_ / "a/b/up"), "../../top");
  EXPECT_EQ(fs::read_symlink(out_ / "side"), "a/b/up");
  EXPECT_EQ(fs::read_symlink(out_ / "here"), ".");
}

// Ways out of the folder.

TEST_F(OrbaArchiveTest, RefusesNamesThatLeadOutside) {
  ExpectPayloadRefused(Tar().File((folder_.path() / "evil").string()), "not a relative name");
  ExpectPayloadRefused(Tar().File("../evil"), "a name with \"..\"");
  ExpectPayloadRefused(Tar().File("a/../../evil"), "a name with \"..\"");
  ExpectPayloadRefused(Tar().Folder(".."), "a name with \"..\"");
  ExpectPayloadRefused(Tar().Folder("a/.."), "a name with \"..\"");
  ExpectPayloadRefused(Tar().Extended({{"path", "../evil"}}).File("good"), "a name with \"..\"");
  ExpectPayloadRefused(Tar().LongName("../evil").File("good"), "a name with \"..\"");
  EXPECT_THAT(Snapshot(out_), IsEmpty());
}

TEST_F(OrbaArchiveTest, RefusesNamesWithoutAFile) {
  ExpectPayloadRefused(Tar().File("."), "not a name for a file");
  ExpectPayloadRefused(Tar().Symlink("./", "a"), "not a name for a file");
}

TEST_F(OrbaArchiveTest, RefusesSymbolicLinksThatLeadOutside) {
  ExpectPayloadRefused(Tar().Symlink("link", "/etc/passwd"), "an absolute symbolic link");
  ExpectPayloadRefused(Tar().Symlink("link", ".."), "a symbolic link that leads outside");
  ExpectPayloadRefused(Tar().Symlink("link", "./../canary"), "a symbolic link that leads outside");
  ExpectPayloadRefused(Tar().Symlink("a/link", "../../canary"), "a symbolic link that leads outside");
  ExpectPayloadRefused(Tar().Extended({{"linkpath", "/etc"}}).Symlink("link", "good"), "an absolute symbolic link");
  EXPECT_THAT(Snapshot(out_), IsEmpty());
}

TEST_F(OrbaArchiveTest, RefusesAChainOfLinksThatOnlyTogetherLeadOutside) {
  // Counted by its text, "d/e/../a/b/up/.." stays inside; but "up" leads to the top, and its parent is outside.
  ExpectPayloadRefused(Tar().Symlink("d/a/b/up", "../../..").Symlink("d/e/out", "../a/b/up/.."),
                       "d/e/out: a symbolic link that leads outside");
}

TEST_F(OrbaArchiveTest, RefusesToWriteThroughSymbolicLinks) {
  ExpectPayloadRefused(Tar().Folder("dir").Symlink("link", "dir").File("link/file"), "link/file: ");
  EXPECT_THAT(Snapshot(out_ / "dir"), IsEmpty());
  ExpectPayloadRefused(Tar().File("target", "old").Symlink("name", "target").File("name", "new"),
                       "name: " + test::ErrorText(EEXIST));
  EXPECT_EQ(ReadFile(out_ / "target"), "old");
}

TEST_F(OrbaArchiveTest, RefusesToFollowSymbolicLinksThatWereThereBefore) {
  fs::create_directory_symlink(folder_.path(), out_ / "link");
  ExpectPayloadRefused(Tar().File("link/evil"), "link/evil: ");
  ExpectPayloadRefused(Tar().File("link/deep/evil"), "link/deep/evil: ");
  ExpectPayloadRefused(Tar().Folder("link/evil"), "link/evil: ");
  ExpectPayloadRefused(Tar().Folder("link"), "link: ");
  ExpectPayloadRefused(Tar().Symlink("link/evil", "x"), "link/evil: ");
  ExpectPayloadRefused(Tar().HardLink("stolen", "link/canary"), "stolen: ");
  fs::create_symlink(folder_.path() / "evil", out_ / "dangling");
  ExpectPayloadRefused(Tar().File("dangling"), "dangling: " + test::ErrorText(EEXIST));
}

TEST_F(OrbaArchiveTest, RefusesHardLinksButToItsOwnFiles) {
  WriteFile(out_ / "INFO", "before");
  ExpectPayloadRefused(Tar().HardLink("a", "../canary"), "a name with \"..\"");
  ExpectPayloadRefused(Tar().HardLink("a", (folder_.path() / "canary").string()), "not a relative name");
  ExpectPayloadRefused(Tar().HardLink("a", "INFO"), "a link to a file that is not in this archive");
  ExpectPayloadRefused(Tar().HardLink("a", "missing"), "a: " + test::ErrorText(ENOENT));
  ExpectPayloadRefused(Tar().Symlink("s", "INFO").HardLink("a", "s"), "a link to a file that is not in this archive");
  ExpectPayloadRefused(Tar().Folder("d").HardLink("a", "d"), "a link to a file that is not in this archive");
  ExpectPayloadRefused(Tar().HardLink("a", "."), "a link to no file");
  EXPECT_FALSE(fs::exists(out_ / "a"));
  const ProcessResult result = UnpackPayload(Tar().File("x/y").HardLink("z/b", "x/y"));
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(Status(out_ / "z/b").st_ino, Status(out_ / "x/y").st_ino);
}

TEST_F(OrbaArchiveTest, RefusesDevicesFifosAndTheLike) {
  for (const char type : {'3', '4', '6'}) {
    ExpectPayloadRefused(Tar().Add(type, "special"), "special: neither a file, a folder nor a link");
  }
  EXPECT_THAT(Snapshot(out_), IsEmpty());
}

TEST_F(OrbaArchiveTest, NeverOverwritesWhatIsThere) {
  WriteFile(out_ / "INFO", "before");
  fs::create_directory(out_ / "dir");
  ExpectPayloadRefused(Tar().File("INFO", "after"), "INFO: " + test::ErrorText(EEXIST));
  ExpectPayloadRefused(Tar().Symlink("INFO", "x"), "INFO: " + test::ErrorText(EEXIST));
  ExpectPayloadRefused(Tar().Folder("INFO"), "INFO: " + test::ErrorText(ENOTDIR));
  ExpectPayloadRefused(Tar().File("INFO/file"), "INFO/file: " + test::ErrorText(ENOTDIR));
  ExpectPayloadRefused(Tar().File("dir"), "dir: " + test::ErrorText(EEXIST));
  ExpectPayloadRefused(Tar().File("f").HardLink("INFO", "f"), "INFO: " + test::ErrorText(EEXIST));
  ExpectPayloadRefused(Tar().File("twice").File("twice"), "twice: " + test::ErrorText(EEXIST));
  EXPECT_EQ(ReadFile(out_ / "INFO"), "before");
  ExpectRefused(Program::kArchive, Tar().File("INFO", "after").Bytes(), "INFO: " + test::ErrorText(EEXIST));
  EXPECT_EQ(ReadFile(out_ / "INFO"), "before");
}

TEST_F(OrbaArchiveTest, RefusesAnythingButFilesAtThePackagesTop) {
  const std::string reason = "a package contains only files at the top level";
  ExpectPackageRefused(Tar().Folder("dir"), reason);
  ExpectPackageRefused(Tar().Folder("./"), reason);
  ExpectPackageRefused(Tar().File("dir/INFO"), reason);
  ExpectPackageRefused(Tar().Symlink("INFO", "package.tgz"), reason);
  ExpectPackageRefused(Tar().Symlink("INFO", "/etc/passwd"), reason);
  ExpectPackageRefused(Tar().File("INFO").HardLink("other", "INFO"), reason);
  fs::remove(out_ / "INFO");
  ExpectPackageRefused(Tar().Add('3', "INFO"), reason);
  ExpectPackageRefused(Tar().File("."), reason);
  ExpectPackageRefused(Tar().File("../INFO"), "a name with \"..\"");
  ExpectPackageRefused(Tar().File("/INFO"), "not a relative name");
  EXPECT_THAT(Snapshot(out_), IsEmpty());
  EXPECT_TRUE(Unpack(Program::kArchive, Tar().File("./INFO").Bytes()).Exited(0));
}

TEST_F(OrbaArchiveTest, UnpacksAllOfAPackageOrNothing) {
  WriteFile(out_ / "package.tgz", "before");
  const auto before = Snapshot(out_);
  ExpectPackageRefused(Tar().File("INFO").File("package.tgz"), "package.tgz: " + test::ErrorText(EEXIST));
  EXPECT_EQ(Snapshot(out_), before);
  ExpectPackageRefused(Tar().File("INFO").File("other").File("INFO"), "INFO: in the package twice");
  EXPECT_EQ(Snapshot(out_), before);
}

// What an install that failed has left used to be in the way of every later one.
TEST_F(OrbaArchiveTest, EmptiesTheTemporaryFolderOfAPackFirst) {
  const fs::path unpacked = path::kTempPackFolderPath;
  WriteFile(unpacked / "INFO", "left");
  WriteFile(unpacked / "lib/planted.so", "planted");
  fs::create_symlink(folder_.path(), unpacked / "link");
  WriteFile(archive_, Tar().File("INFO").File("package.tgz", Gzip(Tar().File("lib/codec.so").Bytes())).Bytes());
  ProcessResult result = Run(Program::kArchive, {"-xf", archive_, "-C", unpacked});
  EXPECT_TRUE(result.Exited(0)) << result;
  result = Run(Program::kTar, {"-xf", unpacked / "package.tgz", "-C", unpacked});
  EXPECT_TRUE(result.Exited(0)) << result;
  std::vector<std::string> names;
  for (const auto& [name, about] : Snapshot(unpacked)) {
    names.push_back(fs::relative(name, unpacked));
  }
  EXPECT_THAT(names, ElementsAre("INFO", "lib", "lib/codec.so", "package.tgz"));
  EXPECT_EQ(ReadFile(unpacked / "INFO"), "data");
  EXPECT_EQ(ReadFile(folder_.path() / "canary"), "alive");

  // A payload from elsewhere: what is there did not come with it.
  WriteFile(archive_, Gzip(Tar().File("lib/codec.so").Bytes()));
  WriteFile(unpacked / "lib/planted.so", "planted");
  result = Run(Program::kTar, {"-xf", archive_, "-C", unpacked});
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(Snapshot(unpacked).size(), 2U);
  test::RemoveWrittenFolders();
}

TEST_F(OrbaArchiveTest, EmptiesTheDownloadFolderButForThePackage) {
  const fs::path download = kDownloadFolder;
  const fs::path package = path::kDownloadedOpkPath;
  WriteFile(package, Tar().File("INFO").File("package.tgz", Gzip(Tar().File("f").Bytes())).Bytes());
  WriteFile(download / "package.tgz", "planted");
  WriteFile(download / "folder/file", "left");
  for (int run = 0; run < 2; ++run) {
    const ProcessResult result = Run(Program::kArchive, {"-xf", package, "-C", download});
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_EQ(Snapshot(download).size(), 3U);
    EXPECT_EQ(ReadFile(download / "package.tgz"), Gzip(Tar().File("f").Bytes()));
  }
  test::RemoveWrittenFolders();
}

TEST_F(OrbaArchiveTest, EmptiesNoFolderButTheUpdatersOwn) {
  const fs::path packages = kTargetFolder;
  fs::create_directories(packages);
  WriteFile(out_ / "mine", "kept");
  EXPECT_TRUE(Unpack(Program::kArchive, Tar().File("INFO").Bytes()).Exited(0));
  EXPECT_EQ(ReadFile(out_ / "mine"), "kept");
  fs::create_directory_symlink(out_, path::kTempPackFolderPath);
  const ProcessResult result = Run(Program::kArchive, {"-xf", archive_, "-C", path::kTempPackFolderPath});
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, HasSubstr("INFO: " + test::ErrorText(EEXIST)));
  EXPECT_EQ(ReadFile(out_ / "mine"), "kept");
  test::RemoveWrittenFolders();
}

// Bounds.

TEST_F(OrbaArchiveTest, BoundsWhatAPackageTakesOfMemory) {
  const auto refused = [&](const Tar& tar, const std::string& reason) {
    ExpectPackageRefused(tar, reason);
    WriteFile(archive_, tar.Bytes());
    const ProcessResult verified = Run(Program::kArchive, {"--verify", archive_});
    EXPECT_TRUE(verified.Exited(1)) << verified;
    EXPECT_THAT(verified.err, HasSubstr(reason));
    EXPECT_THAT(Snapshot(out_), IsEmpty());
  };
  refused(Tar().LongName(std::string(900'000, 'n')).File("x"), "a member's header is too long");
  Tar many;
  for (int i = 0; i < 16'000; ++i) {
    many.File(std::to_string(i), "");
  }
  refused(many, "more members than a manifest can list");
  Tar headers;
  for (int i = 0; i < 700; ++i) {
    headers.Extended({{"comment", std::string(50'000, 'c')}}).File(std::to_string(i), "");
  }
  refused(headers, "more than 33554432 bytes of headers");
}

TEST_F(OrbaArchiveTest, BoundsNames) {
  std::string longest;
  while (longest.size() < 4080) {
    longest += std::string(254, 'n') + "/";
  }
  longest += std::string(4096 - longest.size(), 'n');
  const ProcessResult result = UnpackPayload(Tar().LongName(longest).File("x"));
  EXPECT_TRUE(result.Exited(0)) << result;
  ExpectPayloadRefused(Tar().LongName(longest + "n").File("x"), "a name of more than 4096 bytes");
  std::string deepest = "d";
  for (int i = 1; i < 128; ++i) {
    deepest += "/d";
  }
  EXPECT_TRUE(UnpackPayload(Tar().LongName(deepest).File("x")).Exited(0));
  ExpectPayloadRefused(Tar().LongName(deepest + "/d").File("x"), "more than 128 folders deep");
}

TEST_F(OrbaArchiveTest, StopsAtTheLimit) {
  const Tar tar = Tar().File("a", std::string(4096, 'a')).File("b", std::string(4097, 'b'));
  ExpectPayloadRefused(tar, "b: unpacks to more than the limit of 20479 bytes", {"--limit", "20479"});
  fs::remove(out_ / "a");
  EXPECT_FALSE(fs::exists(out_ / "b"));
  EXPECT_TRUE(UnpackPayload(tar, {"--limit=20480"}).Exited(0));
}

// Ten thousand folders or links used to count for nothing: a few kilobytes of payload took all inodes of a disk.
TEST_F(OrbaArchiveTest, CountsFoldersAndLinksAtWhatTheyCost) {
  const auto expect_cost = [&](const Tar& tar, uint64_t bytes) {
    const std::string less = std::to_string(bytes - 1);
    ExpectPayloadRefused(tar, "unpacks to more than the limit of " + less + " bytes", {"--limit", less});
    fs::remove_all(out_);
    fs::create_directory(out_);
    const ProcessResult result = UnpackPayload(tar, {"--limit", std::to_string(bytes)});
    EXPECT_TRUE(result.Exited(0)) << result;
    fs::remove_all(out_);
    fs::create_directory(out_);
  };
  constexpr uint64_t kBlock = 4096;
  expect_cost(Tar().File("empty", ""), kBlock);
  expect_cost(Tar().Folder("folder"), 2 * kBlock);
  expect_cost(Tar().Folder("folder").Folder("folder/"), 2 * kBlock);
  expect_cost(Tar().File("a/b/c/file", "").File("a/b/d/file", ""), 4 * 2 * kBlock + 2 * kBlock);
  expect_cost(Tar().Extended({{"linkpath", std::string(4000, 'x')}}).Symlink("link", "x"), 2 * kBlock);
  expect_cost(Tar().File("file", "").HardLink("link", "file"), 2 * kBlock);
}

TEST_F(OrbaArchiveTest, BoundsTheNumberOfFilesFoldersAndLinks) {
  Tar tar;
  std::string deep;
  for (int i = 0; i < 127; ++i) {
    deep += "/d";
  }
  for (int i = 0; i < 180; ++i) {
    tar.LongName(std::to_string(i) + deep).File("x", "");
  }
  struct statvfs disk = {};
  ASSERT_EQ(statvfs(out_.c_str(), &disk), 0);
  const ProcessResult result = UnpackPayload(tar);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, testing::ContainsRegex(": more than [0-9]+ files, folders and links\n$"));
  const auto made = std::distance(fs::recursive_directory_iterator(out_), fs::recursive_directory_iterator());
  EXPECT_LE(made, 20'000);
  if (disk.f_files != 0) {
    EXPECT_LE(static_cast<uint64_t>(made), disk.f_favail);
  }
}

TEST_F(OrbaArchiveTest, VerifyingLeavesInfoWithItsModeWhateverTheUmask) {
  WriteFile(archive_, Tar().File("INFO", "version=\"2\"\n", 0600).File("package.tgz").Bytes());
  ProcessOptions options;
  options.before_exec = [] { umask(077); };
  const ProcessResult result = Run(Program::kArchive, {"--verify", archive_, "-C", out_}, options);
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(Mode(out_ / "INFO"), 0644U);
  EXPECT_EQ(Snapshot(out_).size(), 1U);
}

TEST_F(OrbaArchiveTest, TakesTheLimitFromTheSettings) {
  const fs::path own = path::kPkgSetting;
  const fs::path makers = path::kDefaultPkgSetting;
  const Tar tar = Tar().File("file", std::string(600, 'a'));
  WriteFile(makers, "unpack_limit=\"8191\"\n");
  ExpectPayloadRefused(tar, "file: unpacks to more than the limit of 8191 bytes");
  ExpectPackageRefused(tar, "file: unpacks to more than the limit of 8191 bytes");
  WriteFile(own, "unpack_limit=\"8190\"\n");
  ExpectPayloadRefused(tar, "file: unpacks to more than the limit of 8190 bytes");
  ExpectPayloadRefused(tar, "file: unpacks to more than the limit of 8189 bytes", {"--limit", "8189"});
  for (const char* malformed : {"many", "-1", "1k", "1 000", "99999999999999999999"}) {
    WriteFile(own, std::string("unpack_limit=\"") + malformed + "\"\n");
    ExpectPayloadRefused(tar, own.string() + ": unpack_limit is not a number of bytes: " + malformed);
    EXPECT_THAT(Run(Program::kArchive, {"--verify", archive_}).err, HasSubstr("unpack_limit is not a number"));
  }
  WriteFile(own, "unpack_limit=\"8192\"\n");
  EXPECT_TRUE(UnpackPayload(tar).Exited(0));
  fs::remove(own);
  fs::remove(makers);
}

TEST_F(OrbaArchiveTest, RefusesABombBeforeWritingIt) {
  const std::string bomb = Gzip(Tar().File("bomb", std::string(50'000'000, '\0')).Bytes());
  ASSERT_LT(bomb.size(), 200'000U);
  ExpectRefused(Program::kTar, bomb, "bomb: unpacks to more than the limit", {"--limit", "10000000"});
  EXPECT_FALSE(fs::exists(out_ / "bomb"));
}

TEST_F(OrbaArchiveTest, RefusesMoreThanThereIsRoomFor) {
  struct statvfs room = {};
  ASSERT_EQ(statvfs(out_.c_str(), &room), 0);
  const uint64_t twice = 2 * static_cast<uint64_t>(room.f_bavail) * room.f_frsize + (1ULL << 33);
  ExpectPayloadRefused(Tar().Header('0', "huge", twice), "bytes that are free", {"--limit", "9223372036854775807"});
  EXPECT_FALSE(fs::exists(out_ / "huge"));
}

TEST_F(OrbaArchiveTest, RefusesHeadersMadeToFillTheMemory) {
  std::string map = "9000000\n";
  while (map.size() < 16'000'000) {
    map += "0\n0\n0\n0\n0\n0\n0\n0\n";
  }
  ExpectPayloadRefused(SparseFile("x", "10", map), "a member's header is too long");
  ExpectPayloadRefused(Tar().LongName(std::string(10'000'000, 'n')).File("x"), "");
  ExpectPayloadRefused(Tar().Extended({{"comment", std::string(10'000'000, 'c')}}).File("x"), "");
}

TEST_F(OrbaArchiveTest, RefusesMoreThanAMillionMembers) {
  std::string folders;
  for (int i = 0; i < 1'000; ++i) {
    folders += Tar().Folder("./").WithoutEnd();
  }
  folders = Gzip(folders);
  std::string bytes;
  for (int i = 0; i < 1'000; ++i) {
    bytes += folders;
  }
  EXPECT_TRUE(Unpack(Program::kTar, bytes + Gzip(Tar().Bytes())).Exited(0));
  ExpectRefused(Program::kTar, bytes + Gzip(Tar().Folder("./").Bytes()), "more than 1000000 members");
}

TEST_F(OrbaArchiveTest, ReportsAFullDisk) {
  ProcessOptions options;
  options.before_exec = [] {
    const rlimit limit = {100'000, 100'000};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  ExpectRefused(Program::kTar, Gzip(Tar().File("big", std::string(300'000, 'x')).Bytes()),
                "big: " + test::ErrorText(EFBIG), {}, options);
}

TEST_F(OrbaArchiveTest, RefusesAPackageWhoseDigestsCannotBeComputed) {
  const std::string without_digests = folder_.File("openssl.cnf");
  WriteFile(without_digests, "openssl_conf = a\n[a]\nproviders = b\n[b]\nnull = c\n[c]\nactivate = 1\n");
  WriteFile(path::kKeyring, "");
  ProcessOptions options;
  options.environment = {"OPENSSL_CONF=" + without_digests};
  const ProcessResult result = Unpack(Program::kArchive, Tar().File("INFO").Bytes(), {}, options);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_EQ(result.err, "orba-archive: " + archive_.string() + ": INFO: cannot compute a digest\n");
  EXPECT_THAT(Snapshot(out_), IsEmpty());
  fs::remove(path::kKeyring);
}

TEST_F(OrbaArchiveTest, ReportsAFolderOrLinkThatCannotBeMade) {
  ProcessOptions options;
  options.before_exec = [] {
    for (const int call : {SYS_mkdirat, SYS_symlinkat, SYS_linkat}) {
      FailSystemCall(call, EDQUOT);
    }
  };
  const std::string error = ": " + test::ErrorText(EDQUOT);
  ExpectRefused(Program::kTar, Gzip(Tar().Folder("folder").Bytes()), ": folder" + error, {}, options);
  ExpectRefused(Program::kTar, Gzip(Tar().File("a/b").Bytes()), ": a/b" + error, {}, options);
  ExpectRefused(Program::kTar, Gzip(Tar().Symlink("link", "a").Bytes()), ": link" + error, {}, options);
  ExpectRefused(Program::kTar, Gzip(Tar().File("f").HardLink("link", "f").Bytes()), ": link" + error, {}, options);
}

// Damage.

TEST_F(OrbaArchiveTest, RefusesAPackageCutAnywhere) {
  const std::string whole =
      Tar().File("INFO", std::string(600, 'i')).File("package.tgz", std::string(512, 'p')).Bytes();
  for (size_t size = 0; size < whole.size(); size += 512) {
    ExpectRefused(Program::kArchive, whole.substr(0, size), "");
    ExpectRefused(Program::kArchive, whole.substr(0, size + 200), "");
    EXPECT_THAT(Snapshot(out_), IsEmpty());
  }
  EXPECT_TRUE(Unpack(Program::kArchive, whole).Exited(0));
}

TEST_F(OrbaArchiveTest, RefusesAPayloadCutAnywhere) {
  const std::string tar = Tar().Folder("d").File("d/f", std::string(600, 'f')).Bytes();
  const std::string whole = Gzip(tar);
  for (size_t size = 0; size < whole.size(); ++size) {
    ExpectRefused(Program::kTar, whole.substr(0, size), "");
    fs::remove_all(out_ / "d");
  }
  for (size_t size = 0; size < tar.size(); size += 512) {
    ExpectRefused(Program::kTar, Gzip(tar.substr(0, size)), "");
    fs::remove_all(out_ / "d");
  }
  EXPECT_TRUE(Unpack(Program::kTar, whole).Exited(0));
}

TEST_F(OrbaArchiveTest, RefusesGarbageAndEmptyArchives) {
  ExpectRefused(Program::kArchive, "", "Unrecognized archive format");
  ExpectRefused(Program::kArchive, std::string(4096, 'g'), "Unrecognized archive format");
  ExpectRefused(Program::kArchive, Tar().Bytes(), "empty archive");
  ExpectRefused(Program::kTar, "", "truncated gzip data");
  ExpectRefused(Program::kTar, std::string(4096, 'g'), "damaged gzip data");
  ExpectRefused(Program::kTar, Gzip(""), "Unrecognized archive format");
  ExpectRefused(Program::kTar, Gzip(Tar().Bytes()), "empty archive");
}

TEST_F(OrbaArchiveTest, RefusesDataBehindTheEnd) {
  const std::string tar = Tar().File("f").Bytes();
  const std::string more = Tar().File("g").Bytes();
  const auto refused = [&](Program program, const std::string& bytes, const std::string& reason) {
    ExpectRefused(program, bytes, reason);
    fs::remove(out_ / "f");
  };
  refused(Program::kArchive, tar + more, "data after the end of the archive");
  refused(Program::kArchive, tar + std::string(500'000, '\0') + "x", "data after the end of the archive");
  refused(Program::kArchive, Tar().File("f").WithoutEnd() + std::string(512, '\0') + more,
          "data after the end of the archive");
  refused(Program::kTar, Gzip(tar + more), "data after the end of the archive");
  refused(Program::kTar, Gzip(tar) + "x", "truncated gzip data");
  refused(Program::kTar, Gzip(tar) + std::string(1, '\0'), "truncated gzip data");
  refused(Program::kTar, Gzip(tar) + std::string(512, '\0'), "damaged gzip data");
  EXPECT_TRUE(Unpack(Program::kArchive, tar + std::string(100'000, '\0')).Exited(0));
}

TEST_F(OrbaArchiveTest, ReadsConcatenatedGzipMembers) {
  std::string data;
  for (unsigned i = 0; data.size() < 1'500'000; ++i) {
    data += std::to_string(i * 2654435761U);
  }
  const std::string tar = Tar().File("f", data).Bytes();
  std::string bytes;
  for (size_t at = 0; at < tar.size(); at += 100'003) {
    bytes += Gzip(tar.substr(at, 100'003)) + Gzip("");
  }
  const ProcessResult result = Unpack(Program::kTar, bytes);
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(ReadFile(out_ / "f"), data);
}

TEST_F(OrbaArchiveTest, ReadsAGzipMemberOfASingleByte) {
  const std::string tar = Tar().File("f").Bytes();
  for (const size_t at : {size_t{0}, size_t{512}, size_t{513}}) {
    const ProcessResult result =
        Unpack(Program::kTar, Gzip(tar.substr(0, at)) + Gzip(tar.substr(at, 1)) + Gzip(tar.substr(at + 1)));
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_EQ(ReadFile(out_ / "f"), "data");
    fs::remove(out_ / "f");
  }
}

/// A gzip member whose header has every field, its name longer than what is read at once.
std::string WithEveryField(const std::string& gzip) {
  std::string header = gzip.substr(0, 10);
  header[3] = 1 | 2 | 4 | 8 | 16;
  header += std::string("\x10\x27", 2) + std::string(10'000, 'e');
  header += std::string(600'000, 'n') + '\0' + "comment" + '\0';
  // A member ends with the checksum and the length of its data, four bytes each; a header with half of its checksum.
  const std::string sum = Gzip(header);
  return header + sum.substr(sum.size() - 8, 2) + gzip.substr(10);
}

TEST_F(OrbaArchiveTest, ReadsEveryFieldOfAGzipHeader) {
  const std::string bytes =
      WithEveryField(Gzip(Tar().File("f").WithoutEnd())) + WithEveryField(Gzip(std::string(1024, '\0')));
  const ProcessResult result = Unpack(Program::kTar, bytes);
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(ReadFile(out_ / "f"), "data");
}

TEST_F(OrbaArchiveTest, ChecksTheChecksumOfAGzipHeader) {
  std::string bytes = WithEveryField(Gzip(Tar().File("f").Bytes()));
  bytes[300'000] = 'm';
  ExpectRefused(Program::kTar, bytes, "damaged gzip data");
}

TEST_F(OrbaArchiveTest, RefusesAGzipHeaderThatIsCutOff) {
  const std::string first = Gzip(Tar().File("f").Bytes());
  const std::string header = WithEveryField(first);
  for (const size_t length :
       {size_t{1}, size_t{9}, size_t{10}, size_t{11}, size_t{5000}, size_t{65'536}, size_t{300'000}}) {
    ExpectRefused(Program::kTar, header.substr(0, length), "truncated gzip data");
    ExpectRefused(Program::kTar, first + header.substr(0, length), "truncated gzip data");
    fs::remove(out_ / "f");
  }
}

// The decoder passes over the flags that have no meaning yet, in the first header as in a later one.
TEST_F(OrbaArchiveTest, RefusesReservedFlagsInAGzipHeader) {
  const std::string first = Gzip(Tar().File("f").WithoutEnd());
  const std::string second = Gzip(std::string(1024, '\0'));
  EXPECT_TRUE(Unpack(Program::kTar, first + second).Exited(0));
  for (const size_t flags : {size_t{3}, first.size() + 3}) {
    for (const char reserved : {'\x20', '\x40', '\x80'}) {
      std::string bytes = first + second;
      bytes[flags] = reserved;
      fs::remove(out_ / "f");
      ExpectRefused(Program::kTar, bytes, "damaged gzip data");
    }
  }
}

TEST_F(OrbaArchiveTest, ChecksTheChecksumAndLengthOfAPayload) {
  const std::string whole = Gzip(Tar().File("f").Bytes());
  for (size_t back = 1; back <= 8; ++back) {
    std::string bytes = whole;
    bytes[bytes.size() - back] = static_cast<char>(bytes[bytes.size() - back] ^ 1);
    ExpectRefused(Program::kTar, bytes, "damaged gzip data");
    fs::remove(out_ / "f");
  }
}

/// Flips one bit of every byte, an eighth of the bytes in each test. In every case the program ends by itself, and
/// nothing outside the folder changes.
class OrbaArchiveFlipTest : public OrbaArchiveTest, public testing::WithParamInterface<size_t> {
 protected:
  /// `may_pass` tells for a byte whether the program may take the archive; the result is in the folder.
  void Flip(Program program, const std::string& whole, const std::function<bool(size_t)>& may_pass) {
    WriteFile(archive_, whole);
    const auto before = Snapshot(folder_.path() / "around", out_);
    for (size_t i = GetParam(); i < whole.size(); i += 8) {
      std::string bytes = whole;
      bytes[i] = static_cast<char>(bytes[i] ^ (1 << ((i / 8 + i) % 8)));
      const ProcessResult result = Unpack(program, bytes);
      EXPECT_TRUE(result.Exited(1) || (result.Exited(0) && may_pass(i))) << "byte " << i << ": " << result;
      EXPECT_EQ(ReadFile(folder_.path() / "canary"), "alive");
      ASSERT_EQ(Snapshot(folder_.path() / "around", out_), before) << "byte " << i;
      fs::remove_all(out_);
      fs::create_directory(out_);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_.path()), fs::directory_iterator()), 3);
  }
};

INSTANTIATE_TEST_SUITE_P(Eighths, OrbaArchiveFlipTest, testing::Range<size_t>(0, 8));

TEST_P(OrbaArchiveFlipTest, PackageWithATurnedBit) {
  // The header has a checksum, and the end mark must be zero; the contents are for the package's digest to protect.
  Flip(Program::kArchive, Tar().File("INFO", std::string(512, 'i')).Bytes(),
       [](size_t i) { return (i >= 148 && i < 156) || (i >= 512 && i < 1024); });
}

TEST_P(OrbaArchiveFlipTest, PayloadWithATurnedBit) {
  const Tar tar = Tar().Folder("d").File("d/f", "contents").Symlink("d/l", "f").HardLink("h", "d/f");
  const std::string whole = Gzip(tar.Bytes());
  ASSERT_TRUE(Unpack(Program::kTar, whole).Exited(0));
  const auto unpacked = Snapshot(out_);
  fs::remove_all(out_);
  fs::create_directory(out_);
  // Some bits mean nothing, such as the time in the gzip header, or which of two equal runs of zeros is repeated.
  Flip(Program::kTar, whole, [&](size_t) { return Snapshot(out_) == unpacked; });
}

// Listing and creating.

TEST_F(OrbaArchiveTest, ListsMembersOneALine) {
  WriteFile(archive_, Tar().File("INFO").File("package.tgz", std::string(2'000'000, 'p')).Bytes());
  ProcessResult result = Run(Program::kArchive, {"-tf", archive_});
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(result.out, "INFO\npackage.tgz\n");
  WriteFile(archive_, Gzip(Tar().Folder("d/").File("d/two\nlines").Symlink("out", "/").Bytes()));
  result = Run(Program::kTar, {"-tf", archive_});
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(result.out, "d/\nd/two\\012lines\nout\n");
}

TEST_F(OrbaArchiveTest, ListingNoticesDamageInContents) {
  std::string bytes = Gzip(Tar().File("f", "abc").Bytes());
  bytes[bytes.size() - 8] = static_cast<char>(bytes[bytes.size() - 8] ^ 1);
  WriteFile(archive_, bytes);
  EXPECT_TRUE(Run(Program::kTar, {"-tf", archive_}).Exited(1));
}

TEST_F(OrbaArchiveTest, PrintsHostileNamesOnOneLine) {
  ExpectPayloadRefused(Tar().File("../a\n\x1b[2J"), "../a\\012\\033[2J: a name with \"..\"");
}

TEST_F(OrbaArchiveTest, CreatesWhatItAndOthersUnpack) {
  const fs::path tree = folder_.path() / "tree";
  WriteFile(tree / "lib/codec.so", std::string(600'000, 'x'));
  WriteFile(tree / "INFO-größe", "info");
  WriteFile(tree / std::string(200, 'n'), "long");
  fs::create_symlink("codec.so", tree / "lib/codec.so.1");
  fs::create_directory(tree / "empty");
  const ProcessResult made = Run(Program::kTar, {"-cf", archive_, "-C", tree, "."});
  ASSERT_TRUE(made.Exited(0)) << made;
  ASSERT_TRUE(Run(Program::kTar, {"-xf", archive_, "-C", out_}).Exited(0));
  EXPECT_TRUE(RunProgram({"diff", "-r", "--no-dereference", tree, out_}).Exited(0));
  fs::create_directory(folder_.path() / "other");
  EXPECT_TRUE(RunProgram({"tar", "-xzf", archive_, "-C", folder_.path() / "other"}).Exited(0));
  EXPECT_TRUE(RunProgram({"diff", "-r", "--no-dereference", tree, folder_.path() / "other"}).Exited(0));
  EXPECT_EQ(Mode(archive_), 0644U);
}

TEST_F(OrbaArchiveTest, CreatesTheSameBytesFromTheSameTree) {
  const fs::path one = folder_.path() / "one";
  const fs::path two = folder_.path() / "two";
  const std::string long_name(200, 'n');
  for (const std::string name : {"b", "a/x", "c"}) {
    WriteFile(one / name, name);
  }
  WriteFile(one / long_name, "long");
  WriteFile(two / long_name, "long");
  for (const std::string name : {"c", "b", "a/x"}) {
    WriteFile(two / name, name);
  }
  fs::permissions(two / "c", fs::perms(0600));
  fs::permissions(two / "a", fs::perms(0700));
  fs::last_write_time(two / "b", fs::file_time_type::clock::now() - std::chrono::hours(100));
  ASSERT_TRUE(Run(Program::kTar, {"-cf", folder_.File("one.tgz"), "-C", one, "."}).Exited(0));
  ASSERT_TRUE(Run(Program::kTar, {"-cf", folder_.File("two.tgz"), "-C", two, long_name, "c", "b", "./a/"}).Exited(0));
  EXPECT_EQ(ReadFile(folder_.File("one.tgz")), ReadFile(folder_.File("two.tgz")));
  // No name and no time in the gzip header.
  EXPECT_EQ(ReadFile(folder_.File("one.tgz")).substr(3, 5), std::string(5, '\0'));
  EXPECT_EQ(ReadFile(folder_.File("one.tgz")).at(8), 2) << "made as small as possible";
  const ProcessResult listed =
      RunProgram({"tar", "--utc", "--numeric-owner", "--full-time", "-tvzf", folder_.File("one.tgz"), "c"});
  EXPECT_THAT(listed.out, testing::ContainsRegex("^-rw-r--r-- 0/0 +1 1970-01-01 00:00:00 c\n$"));
}

TEST_F(OrbaArchiveTest, CreatesMembersDatedSourceDateEpoch) {
  WriteFile(folder_.path() / "tree/INFO", "x");
  ProcessOptions options;
  options.environment = {"SOURCE_DATE_EPOCH=1234567890"};
  const std::vector<std::string> create = {"-cf", archive_, "-C", folder_.path() / "tree", "INFO"};
  ASSERT_TRUE(Run(Program::kArchive, create, options).Exited(0));
  EXPECT_THAT(RunProgram({"tar", "--utc", "--full-time", "-tvf", archive_}).out, HasSubstr("2009-02-13 23:31:30 INFO"));
  for (const char* wrong : {"SOURCE_DATE_EPOCH=yesterday", "SOURCE_DATE_EPOCH=-1", "SOURCE_DATE_EPOCH="}) {
    options.environment = {wrong};
    const ProcessResult result = Run(Program::kArchive, create, options);
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_THAT(result.err, HasSubstr("SOURCE_DATE_EPOCH is not a number of seconds"));
  }
}

TEST_F(OrbaArchiveTest, CreatingRefusesWhatCouldNotBeUnpacked) {
  const fs::path tree = folder_.path() / "tree";
  WriteFile(tree / "dir/file", "x");
  WriteFile(tree / "INFO", "x");
  ASSERT_EQ(mkfifo((tree / "dir/fifo").c_str(), 0600), 0);
  WriteFile(archive_, "the old archive");
  const auto refused = [&](Program program, const std::string& member, const std::string& reason) {
    const ProcessResult result = Run(program, {"-cf", archive_, "-C", tree, member});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_THAT(result.err, HasSubstr(reason));
  };
  refused(Program::kArchive, "dir", "dir: a package contains only files at the top level");
  refused(Program::kArchive, ".", "a package contains only files at the top level");
  refused(Program::kArchive, "dir/file", "a package contains only files at the top level");
  refused(Program::kTar, "dir", "dir/fifo: neither a file, a folder nor a symbolic link");
  refused(Program::kTar, "../canary", "a name with \"..\"");
  refused(Program::kTar, "missing", "missing: " + test::ErrorText(ENOENT));
  const ProcessResult nowhere = Run(Program::kArchive, {"-cf", tree / "none/archive", "-C", tree, "INFO"});
  EXPECT_TRUE(nowhere.Exited(1)) << nowhere;
  EXPECT_THAT(nowhere.err, EndsWith(": cannot create: " + test::ErrorText(ENOENT) + "\n"));
  EXPECT_EQ(ReadFile(archive_), "the old archive");
}

TEST_F(OrbaArchiveTest, CreatingRefusesATreeTooDeepToUnpack) {
  std::string deepest = folder_.path() / "tree";
  for (int i = 0; i < 128; ++i) {
    deepest += "/d";
  }
  fs::create_directories(deepest);
  const std::vector<std::string> create = {"-cf", archive_, "-C", folder_.path() / "tree", "."};
  EXPECT_TRUE(Run(Program::kTar, create).Exited(0));
  fs::create_directory(deepest + "/d");
  const ProcessResult result = Run(Program::kTar, create);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, EndsWith(": more than 128 folders deep\n"));
}

TEST_F(OrbaArchiveTest, CreatesMembersWithTheModesOfAPack) {
  const fs::path tree = folder_.path() / "tree";
  WriteFile(tree / "folder/program", "x");
  WriteFile(tree / "folder/text", "x");
  fs::permissions(tree / "folder/program", fs::perms(0700));
  fs::permissions(tree / "folder/text", fs::perms(0666));
  fs::permissions(tree / "folder", fs::perms(0700));
  ASSERT_TRUE(Run(Program::kTar, {"-cf", archive_, "-C", tree, "folder"}).Exited(0));
  const std::string listed = RunProgram({"tar", "-tvzf", archive_}).out;
  EXPECT_THAT(listed, testing::ContainsRegex("drwxr-xr-x [^\n]* folder/\n"));
  EXPECT_THAT(listed, testing::ContainsRegex("-rwxr-xr-x [^\n]* folder/program\n"));
  EXPECT_THAT(listed, testing::ContainsRegex("-rw-r--r-- [^\n]* folder/text\n"));
}

TEST_F(OrbaArchiveTest, CreatingRefusesAFileItMayNotRead) {
  fs::permissions(Root(), fs::perms(0755));
  fs::permissions(folder_.path(), fs::perms(0777));
  WriteFile(folder_.path() / "tree/INFO", "x");
  fs::permissions(folder_.path() / "tree/INFO", fs::perms::none);
  ProcessOptions options;
  options.before_exec = BecomeOrdinaryUser;
  const ProcessResult result =
      Run(Program::kArchive, {"-cf", archive_, "-C", folder_.path() / "tree", "INFO"}, options);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_EQ(result.err, "orba-archive: " + archive_.string() + ": INFO: " + test::ErrorText(EACCES) + "\n");
  EXPECT_FALSE(fs::exists(archive_));
}

// What is short is written when the archive is closed, and must be there before it gets its name.
TEST_F(OrbaArchiveTest, CreatingAShortArchiveOnAFullDiskKeepsTheOldOne) {
  WriteFile(folder_.path() / "tree/INFO", "x");
  WriteFile(archive_, "the old archive");
  const auto before = Snapshot(folder_.path());
  ProcessOptions options;
  options.before_exec = [] {
    const rlimit limit = {10, 10};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  for (const Program program : {Program::kArchive, Program::kTar}) {
    const ProcessResult result = Run(program, {"-cf", archive_, "-C", folder_.path() / "tree", "INFO"}, options);
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_THAT(result.err, EndsWith(archive_.string() + ": Write error\n"));
    EXPECT_EQ(Snapshot(folder_.path()), before);
  }
}

TEST_F(OrbaArchiveTest, CreatingOnAFullDiskKeepsTheOldArchive) {
  const fs::path tree = folder_.path() / "tree";
  WriteFile(tree / "INFO", std::string(300'000, 'x'));
  WriteFile(archive_, "the old archive");
  const auto before = Snapshot(folder_.path());
  ProcessOptions options;
  options.before_exec = [] {
    const rlimit limit = {100'000, 100'000};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  const ProcessResult result = Run(Program::kArchive, {"-cf", archive_, "-C", tree, "INFO"}, options);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_EQ(result.err, "orba-archive: " + archive_.string() + ": Write error\n");
  EXPECT_EQ(Snapshot(folder_.path()), before);
}

// Names and arguments.

TEST_F(OrbaArchiveTest, TellsTheLayersApartByItsNameAlone) {
  const std::string tar = Tar().File("f").Bytes();
  ExpectRefused(Program::kTar, tar, "damaged gzip data");
  ExpectRefused(Program::kArchive, Gzip(tar), "Unrecognized archive format");
  EXPECT_THAT(Snapshot(out_), IsEmpty());
}

TEST_F(OrbaArchiveTest, RefusesAnArchiveThatIsNoRegularFile) {
  const auto refused = [&](const std::string& path, const std::string& reason) {
    const ProcessResult result = Run(Program::kArchive, {"-xf", path, "-C", out_});
    EXPECT_TRUE(result.Exited(1)) << result;
    EXPECT_EQ(result.err, "orba-archive: " + path + ": " + reason + "\n");
  };
  ASSERT_EQ(mkfifo(folder_.File("fifo").c_str(), 0600), 0);
  refused(folder_.File("fifo"), "not a regular file");
  refused(folder_.path(), "not a regular file");
  refused(folder_.File("missing"), "cannot open: " + test::ErrorText(ENOENT));
}

TEST_F(OrbaArchiveTest, RefusesAnArchiveItMayNotRead) {
  fs::permissions(Root(), fs::perms(0755));
  fs::permissions(folder_.path(), fs::perms(0755));
  WriteFile(archive_, Tar().File("f").Bytes());
  fs::permissions(archive_, fs::perms::none);
  ProcessOptions options;
  options.before_exec = BecomeOrdinaryUser;
  const ProcessResult result = Run(Program::kArchive, {"-tf", archive_}, options);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_EQ(result.err, "orba-archive: " + archive_.string() + ": cannot open: " + test::ErrorText(EACCES) + "\n");
}

TEST_F(OrbaArchiveTest, RefusesAMissingFolder) {
  WriteFile(archive_, Tar().File("f").Bytes());
  const ProcessResult result = Run(Program::kArchive, {"-xf", archive_, "-C", folder_.File("missing")});
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, EndsWith("missing: " + test::ErrorText(ENOENT) + "\n"));
}

TEST_F(OrbaArchiveTest, UnpacksIntoTheCurrentFolderByDefault) {
  WriteFile(archive_, Tar().File("f").Bytes());
  ProcessOptions options;
  options.folder = out_;
  EXPECT_TRUE(Run(Program::kArchive, {"-x", "-f", archive_}, options).Exited(0));
  EXPECT_EQ(ReadFile(out_ / "f"), "data");
}

TEST_F(OrbaArchiveTest, WrongUsagePrintsTheUsageAndExits64) {
  const std::vector<std::vector<std::string>> wrong = {{},
                                                       {"-x"},
                                                       {"-xf"},
                                                       {"-f", "a"},
                                                       {"-xtf", "a"},
                                                       {"-xf", ""},
                                                       {"-xf", "a", "member"},
                                                       {"-tf", "a", "-C", "."},
                                                       {"-tf", "a", "--limit", "5"},
                                                       {"-tf", "a", "--trust"},
                                                       {"-tf", "a", "--offer", "p=1"},
                                                       {"-cf", "a", "--trust", "member"},
                                                       {"--verify", "a", "--limit", "5"},
                                                       {"--verify", "a", "--offer", "p="},
                                                       {"--verify", "a", "--offer", "=1"},
                                                       {"--verify", "a", "--offer", "p"},
                                                       {"-cf", "a", "-C", "."},
                                                       {"-xf", "a", "--limit", "much"},
                                                       {"-xf", "a", "--limit", "-5"},
                                                       {"-xf", "a", "--limit", "5k"},
                                                       {"-xzf", "a"},
                                                       {"--unknown"}};
  for (const auto& arguments : wrong) {
    const ProcessResult result = Run(Program::kArchive, arguments);
    EXPECT_TRUE(result.Exited(64)) << result;
    EXPECT_THAT(result.err, StartsWith("Usage: orba-archive -xf ARCHIVE"));
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(OrbaArchiveTest, HelpAndVersionSucceed) {
  EXPECT_THAT(Run(Program::kTar, {"--help"}).out, StartsWith("Usage: orba-archive -xf ARCHIVE"));
  const ProcessResult version = Run(Program::kArchive, {"--version"});
  EXPECT_TRUE(version.Exited(0)) << version;
  EXPECT_THAT(version.out, testing::MatchesRegex("orba-archive [0-9.]+\n"));
}

TEST_F(OrbaArchiveTest, ReportsAListingThatCouldNotBePrinted) {
  WriteFile(archive_, Tar().File("f").Bytes());
  const ProcessResult result = RunProgram({"sh", "-c", ORBA_TOOLS "/orba-archive -tf \"$0\" >/dev/full", archive_});
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, HasSubstr("cannot print: " + test::ErrorText(ENOSPC)));
}

TEST_F(OrbaArchiveTest, ReportsAListingThatNobodyReads) {
  WriteFile(archive_, Tar().File("f").Bytes());
  ProcessOptions options;
  options.before_exec = [] {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) == 0) {
      close(ends[0]);
      dup2(ends[1], STDOUT_FILENO);
    }
  };
  const ProcessResult result = Run(Program::kArchive, {"-tf", archive_}, options);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, EndsWith("cannot print: " + test::ErrorText(EPIPE) + "\n"));
}

/// An appliance with a keyring, and packages that its signer has signed.
class OrbaArchiveKeyringTest : public OrbaArchiveTest {
 protected:
  OrbaArchiveKeyringTest() {
    WriteFile(path::kKeyring, signer_.Certificate());
    fs::permissions(path::kKeyring, fs::perms(0644));
  }
  ~OrbaArchiveKeyringTest() override {
    fs::remove(path::kKeyring);
    test::RemoveWrittenFolders();
  }

  void WriteSigned(const std::string& info) const {
    WriteFile(folder_.path() / "INFO", info);
    const std::string digest = RunProgram({"sha256sum", folder_.path() / "INFO"}).out.substr(0, 64);
    const std::string manifest = digest + "  INFO\n";
    WriteFile(archive_,
              Tar().File("MANIFEST", manifest).File("MANIFEST.sig", signer_.Sign(manifest)).File("INFO", info).Bytes());
  }

  PackageSigner signer_{"signer"};
};

TEST_F(OrbaArchiveKeyringTest, AnUnsignedPackageIsRefusedUnlessItIsTrusted) {
  WriteFile(archive_, Tar().File("INFO").Bytes());
  for (const std::vector<std::string>& action :
       {std::vector<std::string>{"--verify", archive_}, {"-xf", archive_, "-C", out_}}) {
    const ProcessResult refused = Run(Program::kArchive, action);
    EXPECT_TRUE(refused.Exited(1)) << refused;
    EXPECT_THAT(refused.err, EndsWith(": not signed\n"));
    std::vector<std::string> trusted = action;
    trusted.emplace_back("--trust");
    EXPECT_TRUE(Run(Program::kArchive, trusted).Exited(0));
  }
  EXPECT_EQ(ReadFile(out_ / "INFO"), "data");
}

TEST_F(OrbaArchiveKeyringTest, ASignedPackageIsAcceptedIfItIsThePackOnOffer) {
  WriteSigned("package=\"pack\"\nversion=\"2.0\"\n");
  EXPECT_TRUE(Run(Program::kArchive, {"--verify", archive_, "--offer", "pack=2.0"}).Exited(0));
  const ProcessResult other = Run(Program::kArchive, {"-xf", archive_, "-C", out_, "--offer", "pack=12.0"});
  EXPECT_TRUE(other.Exited(1)) << other;
  EXPECT_THAT(other.err, EndsWith(": not the pack on offer: it has pack 2.0, and pack 12.0 is on offer\n"));
  EXPECT_THAT(Snapshot(out_), IsEmpty());
  EXPECT_TRUE(Run(Program::kArchive, {"-xf", archive_, "-C", out_, "--offer", "pack=2"}).Exited(0));
}

TEST_F(OrbaArchiveKeyringTest, OnlyAPackageThatIsToBeInstalledIsRemembered) {
  WriteSigned("version=\"2.0\"\n");
  EXPECT_TRUE(Run(Program::kArchive, {"-xf", archive_, "-C", out_}).Exited(0));
  EXPECT_EQ(ReadAcceptedPackages().newest_signature, 0);
  fs::create_directories(path::kTempPackFolderPath);
  EXPECT_TRUE(Run(Program::kArchive, {"-xf", archive_, "-C", path::kTempPackFolderPath}).Exited(0));
  EXPECT_GT(ReadAcceptedPackages().newest_signature, 0);
}

}  // namespace
}  // namespace orbamira::test
