#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/error_text.h"
#include "tests/support/package_signer.h"
#include "tests/support/restrictions.h"
#include "tests/support/tar.h"
#include "tests/support/test_root.h"
#include "tools/orba-archive/archive_writer.h"
#include "tools/orba-archive/manifest.h"
#include "tools/orba-archive/package.h"
#include "tools/orba-archive/sha256.h"
#include "tools/orba-archive/signature.h"
#include "tools/orba-archive/unpack_budget.h"

namespace {

std::optional<struct statvfs> told_of_the_disk;
bool files_can_share_blocks = false;
std::uint64_t bytes_shared = 0;

}  // namespace

// In place of the C library's: a disk of any size, and a file system where files share blocks, which takes a real one
// root to mount.
extern "C" {

[[gnu::visibility("default")]] int fstatvfs(int fd, struct statvfs* status) noexcept {
  if (told_of_the_disk) {
    *status = *told_of_the_disk;
    return 0;
  }
  return statvfs(("/proc/self/fd/" + std::to_string(fd)).c_str(), status);
}

[[gnu::visibility("default")]] int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  if (request != FICLONERANGE) {
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
  }
  if (!files_can_share_blocks) {
    errno = EOPNOTSUPP;
    return -1;
  }
  const auto& range = *static_cast<const file_clone_range*>(argument);
  std::vector<char> bytes(range.src_length);
  const auto size = static_cast<ssize_t>(bytes.size());
  if (pread(static_cast<int>(range.src_fd), bytes.data(), bytes.size(), static_cast<off_t>(range.src_offset)) != size ||
      pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(range.dest_offset)) != size) {
    errno = EIO;
    return -1;
  }
  bytes_shared += range.src_length;
  return 0;
}

}  // extern "C"

namespace orbamira::tools {
namespace {

namespace fs = std::filesystem;

using test::PackageSigner;
using test::Tar;

constexpr std::time_t kDay = 24L * 60 * 60;
constexpr uint64_t kBlock = 4096;

/// What the action throws; empty when it throws nothing.
std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

std::string DigestOf(const std::string& text) {
  Sha256 digest;
  digest.Add({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  return digest.Finish();
}

TEST(DigestTest, IsThatOfTheStandard) {
  EXPECT_EQ(DigestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

// The text of MANIFEST.

std::string WithPack(const std::string& name) {
  return "# format: 2\n# product: p\n# pack: " + name + "\n# version: 1\n";
}

TEST(ManifestTest, ANameMayHaveLettersDigitsAndFourSigns) {
  const std::string name = "09azAZ._+-";
  EXPECT_EQ(ParseManifest(WithPack(name)).pack, name);
  for (const char sign : std::string("/:@[`{ ,")) {
    EXPECT_EQ(ErrorOf([&] { ParseManifest(WithPack(std::string("a") + sign)); }), "MANIFEST: damaged") << sign;
  }
}

TEST(ManifestTest, ItsFormatIsANumberAlone) {
  for (const char* format : {"", "2x", "x", "2 "}) {
    const std::string text = std::string("# format: ") + format + "\n# product: p\n# pack: n\n# version: 1\n";
    EXPECT_EQ(ErrorOf([&] { ParseManifest(text); }), "MANIFEST: damaged") << format;
  }
}

TEST(ManifestTest, ANameHasFromOneTo128Characters) {
  EXPECT_EQ(ParseManifest(WithPack(std::string(128, 'n'))).pack, std::string(128, 'n'));
  EXPECT_EQ(ErrorOf([&] { ParseManifest(WithPack(std::string(129, 'n'))); }), "MANIFEST: damaged");
  EXPECT_EQ(ErrorOf([&] { ParseManifest(WithPack("")); }), "MANIFEST: damaged");
}

TEST(ManifestTest, ADigestIsOfAMemberWithAName) {
  const std::string digest(64, 'd');
  EXPECT_EQ(ParseManifest(digest + "  n\n").digests, (Digests{{"n", digest}}));
  EXPECT_EQ(ErrorOf([&] { ParseManifest(digest + "  \n"); }), "MANIFEST: damaged");
  EXPECT_EQ(ErrorOf([&] { ParseManifest(digest + "  n\n" + digest + "  n\n"); }), "MANIFEST: damaged");
}

// What a disk has room for.

class UnpackBudgetTest : public testing::Test {
 protected:
  UnpackBudgetTest() { Tell(1 << 20, 0, 0); }
  ~UnpackBudgetTest() override { told_of_the_disk.reset(); }

  static void Tell(uint64_t free_blocks, uint64_t inodes, uint64_t free_inodes) {
    struct statvfs disk = {};
    disk.f_frsize = kBlock;
    disk.f_bavail = free_blocks;
    disk.f_files = inodes;
    disk.f_favail = free_inodes;
    told_of_the_disk = disk;
  }

  static std::string ErrorAfter(int entries, uint64_t limit = UINT64_MAX) {
    UnpackBudget budget(0, limit);
    for (int i = 0; i < entries; ++i) {
      budget.Take(0);
    }
    return ErrorOf([&] { budget.Take(0); });
  }
};

TEST_F(UnpackBudgetTest, HasTwentyThousandEntriesWhereInodesAreMadeOnDemand) {
  EXPECT_EQ(ErrorAfter(19'999), "");
  EXPECT_EQ(ErrorAfter(20'000), "more than 20000 files, folders and links");
}

TEST_F(UnpackBudgetTest, LeavesATenthOfTheFreeInodes) {
  Tell(1 << 20, 5000, 1000);
  EXPECT_EQ(ErrorAfter(899), "");
  EXPECT_EQ(ErrorAfter(900), "more than 900 files, folders and links");
  Tell(1 << 20, 1'000'000, 900'000);
  EXPECT_EQ(ErrorAfter(20'000), "more than 20000 files, folders and links");
}

TEST_F(UnpackBudgetTest, ReachesToTheLastFreeBlockAndToTheLimit) {
  Tell(5, 0, 0);
  EXPECT_EQ(ErrorAfter(4), "");
  EXPECT_EQ(ErrorAfter(5), "unpacks to more than the 20480 bytes that are free");
  EXPECT_EQ(ErrorAfter(2, 3 * kBlock), "");
  EXPECT_EQ(ErrorAfter(3, 3 * kBlock), "unpacks to more than the limit of 12288 bytes");
}

TEST_F(UnpackBudgetTest, IsNotKnownWhereTheSystemDoesNotTell) {
  told_of_the_disk.reset();
  EXPECT_EQ(ErrorOf([] { UnpackBudget(-1, UINT64_MAX); }), "cannot tell the free space: " + test::ErrorText(ENOENT));
}

TEST_F(UnpackBudgetTest, CountsContentsInWholeBlocks) {
  Tell(3, 0, 0);
  EXPECT_EQ(ErrorOf([] { UnpackBudget(0, UINT64_MAX).Take(2 * kBlock); }), "");
  EXPECT_EQ(ErrorOf([] { UnpackBudget(0, UINT64_MAX).Take(kBlock + 1); }), "");
  EXPECT_EQ(ErrorOf([] { UnpackBudget(0, UINT64_MAX).Take(2 * kBlock + 1); }),
            "unpacks to more than the 12288 bytes that are free");
}

// Packages.

class PackagePartsTest : public testing::Test {
 protected:
  PackagePartsTest() : mask_(umask(0)) {
    fs::create_directory(out_);
    folder_ = OpenFile(out_, O_RDONLY | O_DIRECTORY);
    Trust(signer_.Certificate());
  }
  ~PackagePartsTest() override {
    files_can_share_blocks = false;
    umask(mask_);
  }

  void Trust(const std::string& certificates) const {
    test::WriteFile(demands_.keyring, certificates);
    fs::permissions(demands_.keyring, fs::perms(0644));
  }

  UniqueFd Write(const std::string& bytes) const {
    test::WriteFile(dir_.File("package"), bytes);
    return OpenFile(dir_.File("package"), O_RDONLY);
  }
  std::string Check(const Tar& tar, const std::optional<Demands>& demands = std::nullopt) const {
    return ErrorOf([&] { CheckPackage(Write(tar.Bytes()).get(), demands); });
  }
  std::string Unpack(const Tar& tar, const std::optional<Demands>& demands = std::nullopt) const {
    return ErrorOf([&] { UnpackPackage(Write(tar.Bytes()).get(), folder_.get(), UINT64_MAX, demands); });
  }

  /// A package of these members, signed, of which `replaced` differ from what is signed.
  Tar Signed(const std::vector<std::pair<std::string, std::string>>& members, const std::string& facts = "",
             const std::vector<std::pair<std::string, std::string>>& replaced = {}) const {
    std::string manifest = facts;
    for (const auto& [name, text] : members) {
      manifest += DigestOf(text) + "  " + name + "\n";
    }
    Tar tar;
    tar.File("MANIFEST", manifest).File("MANIFEST.sig", signer_.Sign(manifest));
    for (const auto& [name, text] : replaced.empty() ? members : replaced) {
      tar.File(name, text);
    }
    return tar;
  }

  test::TempDir dir_;
  fs::path out_ = dir_.path() / "out";
  UniqueFd folder_;
  PackageSigner signer_{"signer"};
  Demands demands_{.keyring = dir_.File("keyring.pem"), .time = {.clock = std::time(nullptr)}};

 private:
  mode_t mask_;
};

TEST_F(PackagePartsTest, ASignedPackageIsUnpackedWithAPayloadOfAnySize) {
  const std::string payload(kMaxTextSize + 5000, 'p');
  EXPECT_EQ(Unpack(Signed({{"INFO", "version=\"2\"\n"}, {"package.tgz", payload}}), demands_), "");
  EXPECT_EQ(test::ReadFile(out_ / "package.tgz"), payload);
  EXPECT_EQ(test::ReadFile(out_ / "INFO"), "version=\"2\"\n");
}

TEST_F(PackagePartsTest, WithoutOneOfTheTwoThatSignItAPackageIsNotSigned) {
  const std::string manifest = DigestOf("data") + "  INFO\n";
  EXPECT_EQ(Unpack(Tar().File("INFO"), demands_), "not signed");
  EXPECT_EQ(Unpack(Tar().File("INFO").File("MANIFEST", manifest), demands_), "not signed");
  EXPECT_EQ(Unpack(Tar().File("INFO").File("MANIFEST.sig", signer_.Sign(manifest)), demands_), "not signed");
  EXPECT_TRUE(fs::is_empty(out_));
}

TEST_F(PackagePartsTest, AMemberThatIsNotWhatWasSignedIsRefused) {
  EXPECT_EQ(Unpack(Signed({{"INFO", "1"}, {"package.tgz", "2"}}, "", {{"INFO", "1"}, {"package.tgz", "3"}}), demands_),
            "package.tgz: does not match MANIFEST");
  EXPECT_EQ(Unpack(Signed({{"INFO", "1"}}, "", {{"INFO", "1"}, {"more", ""}}), demands_), "more: not in MANIFEST");
  EXPECT_TRUE(fs::is_empty(out_));
}

TEST_F(PackagePartsTest, AChangedInfoIsToldAsChangedBeforeItIsRead) {
  const std::string info = std::string("package=\"pack\"\nversion=\"1\"\n");
  const std::string facts = std::string("# format: 2\n# product: ") + kPackageId + "\n# pack: pack\n# version: 1\n";
  EXPECT_EQ(Unpack(Signed({{"INFO", info}}, facts), demands_), "");
  EXPECT_EQ(Unpack(Signed({{"INFO", info}}, facts, {{"INFO", "version=\"9\"\n"}}), demands_),
            "INFO: does not match MANIFEST");
}

TEST_F(PackagePartsTest, AnInfoThatIsJudgedIsBounded) {
  const std::string longest(kMaxTextSize, 'i');
  EXPECT_EQ(Check(Signed({{"INFO", longest}}), demands_), "");
  EXPECT_EQ(Check(Signed({{"INFO", longest + "i"}}), demands_), "INFO: longer than 1048576 bytes");
}

TEST_F(PackagePartsTest, MembersAreNoMoreThanTheLongestManifestLists) {
  constexpr uint64_t kName = 40;
  constexpr uint64_t kLine = kManifestLineSize + kName;
  Tar tar;
  uint64_t left = kMaxTextSize;
  for (; left >= 2 * kLine; left -= kLine) {
    const std::string number = std::to_string(left);
    tar.File(number + std::string(kName - number.size(), 'n'), "");
  }
  // What is left is enough for "a" and a name of some size.
  const std::string name(left - 2 * kManifestLineSize, 'b');
  tar.File("a", "");
  EXPECT_EQ(Check(Tar(tar).File(name.substr(1), "")), "");
  EXPECT_EQ(Check(tar.File(name, "")), name + ": more members than a manifest can list");
}

TEST_F(PackagePartsTest, MembersKeepTheModesOfAPackAlone) {
  ASSERT_EQ(Unpack(Tar().File("all", "", 07777).File("some", "", 0666)), "");
  EXPECT_EQ(fs::status(out_ / "all").permissions(), fs::perms(0755));
  EXPECT_EQ(fs::status(out_ / "some").permissions(), fs::perms(0644));
}

TEST_F(PackagePartsTest, MembersTakeNoMoreThanTheLimit) {
  const UniqueFd package = Write(Tar().File("INFO").File("package.tgz").Bytes());
  EXPECT_EQ(ErrorOf([&] { UnpackPackage(package.get(), folder_.get(), 4 * kBlock - 1, std::nullopt); }),
            "package.tgz: unpacks to more than the limit of 16383 bytes");
  EXPECT_TRUE(fs::is_empty(out_));
  EXPECT_EQ(ErrorOf([&] { UnpackPackage(package.get(), folder_.get(), 4 * kBlock, std::nullopt); }), "");
}

// One piece is read to see what it is, and one more for the header.
TEST_F(PackagePartsTest, AHeaderEndsWithinTwoPiecesThatAreReadAtOnce) {
  EXPECT_EQ(Check(Tar().LongName(std::string(128UL * 1024, 'n')).File("x")), "a member's header is too long");
  EXPECT_EQ(Check(Tar().Extended({{"comment", std::string(120UL * 1024, 'c')}}).File("x")), "");
}

TEST_F(PackagePartsTest, AllHeadersTogetherAreBounded) {
  const Tar one = Tar().Extended({{"comment", std::string(50'000, 'c')}}).File("x", "");
  const uint64_t size = one.WithoutEnd().size();
  Tar tar;
  for (uint64_t i = 0; i <= (32UL << 20) / size; ++i) {
    tar.Extended({{"comment", std::string(50'000, 'c')}}).File(std::to_string(i), "");
  }
  EXPECT_EQ(Check(tar), "more than 33554432 bytes of headers");
}

TEST_F(PackagePartsTest, ContentsDoNotCountAsHeaders) {
  const Tar tar = Tar().File("first", std::string(20UL << 20, 'f')).File("second", std::string(20UL << 20, 's'));
  EXPECT_EQ(Check(Tar(tar).File("third")), "");
}

TEST_F(PackagePartsTest, APieceBeyondTheEndOfItsMemberIsRefused) {
  for (const std::string map : {"1\n0\n100\n", "1\n8\n5\n"}) {
    const std::string contents = map + std::string(512 - map.size(), '\0') + std::string(100, 'x');
    const Tar tar = Tar()
                        .Extended({{"GNU.sparse.major", "1"},
                                   {"GNU.sparse.minor", "0"},
                                   {"GNU.sparse.realsize", "10"},
                                   {"GNU.sparse.name", "x"}})
                        .File("x", contents.substr(0, map.starts_with("1\n0") ? contents.size() : 512 + 5));
    EXPECT_EQ(Check(tar), "x: damaged member") << map;
  }
}

TEST_F(PackagePartsTest, AReadThatFailsIsToldWithItsReason) {
  const UniqueFd package = Write(Tar().File("INFO").Bytes());
  std::string error;
  test::WithFailingCall(SYS_pread64, EIO, [&] {  //
    error = ErrorOf([&] { CheckPackage(package.get(), std::nullopt); });
  });
  EXPECT_EQ(error, "cannot read: " + test::ErrorText(EIO));
}

TEST_F(PackagePartsTest, AMemberThatCannotBeMadeIsNamed) {
  const UniqueFd package = Write(Tar().File("INFO").Bytes());
  std::string error;
  test::WithFailingCall(SYS_openat, EROFS, [&] {
    error = ErrorOf([&] { UnpackPackage(package.get(), folder_.get(), UINT64_MAX, std::nullopt); });
  });
  EXPECT_EQ(error, "INFO: " + test::ErrorText(EROFS));
}

// The system shows such a file as empty, and has something when it is read.
TEST_F(PackagePartsTest, AFileThatGrowsWhileItIsReadMakesNoPackage) {
  const UniqueFd folder = OpenFile("/proc/self", O_RDONLY | O_DIRECTORY);
  const std::string package = dir_.File("made");
  EXPECT_EQ(ErrorOf([&] { CreateArchive(package, Layer::kPackage, folder.get(), {"status"}, 0); }),
            "status: changed while it was read");
  EXPECT_FALSE(fs::exists(package));
}

TEST_F(PackagePartsTest, APackageThatIsNotOnDiskIsNotMade) {
  test::WriteFile(out_ / "INFO", "version=1\n");
  const std::string package = dir_.File("made");
  std::string error;
  test::WithFailingCall(SYS_fsync, EIO, [&] {  //
    error = ErrorOf([&] { CreateArchive(package, Layer::kPackage, folder_.get(), {"INFO"}, 0); });
  });
  EXPECT_EQ(error, "cannot create: " + test::ErrorText(EIO));
  EXPECT_FALSE(fs::exists(package));
}

// Where files can share blocks.

class SharedBlocksOfAPackageTest : public PackagePartsTest {
 protected:
  SharedBlocksOfAPackageTest() {
    files_can_share_blocks = true;
    bytes_shared = 0;
    for (int i = 0; payload_.size() < kMaxTextSize + kBlock + 100; ++i) {
      payload_ += std::to_string(i);
    }
  }

  /// The payload, its contents so many bytes after the beginning of a block.
  Tar PayloadAt(uint64_t place) const { return Tar().File("gap", Gap(place)).File("package.tgz", payload_); }
  static std::string Gap(uint64_t place) {
    std::string gap;
    gap.resize(kBlock - 2UL * 512 + place, 'g');
    return gap;
  }

  std::string payload_;
};

TEST_F(SharedBlocksOfAPackageTest, WholeBlocksAreSharedAndTheRestIsWritten) {
  ASSERT_EQ(Unpack(PayloadAt(0).File("INFO")), "");
  EXPECT_EQ(bytes_shared, payload_.size() / kBlock * kBlock);
  EXPECT_EQ(test::ReadFile(out_ / "package.tgz"), payload_);
  EXPECT_EQ(test::ReadFile(out_ / "INFO"), "data");
}

TEST_F(SharedBlocksOfAPackageTest, ContentsBetweenTwoBlocksAreWritten) {
  ASSERT_EQ(Unpack(PayloadAt(512).File("INFO")), "");
  EXPECT_EQ(bytes_shared, 0U);
  EXPECT_EQ(test::ReadFile(out_ / "package.tgz"), payload_);
}

TEST_F(SharedBlocksOfAPackageTest, WhatIsSharedIsJudgedToo) {
  for (const std::string altered : {"x", ""}) {
    const std::string manifest = DigestOf(Gap(0)) + "  gap\n" + DigestOf(payload_ + altered) + "  package.tgz\n";
    bytes_shared = 0;
    EXPECT_EQ(Unpack(PayloadAt(0).File("MANIFEST", manifest).File("MANIFEST.sig", signer_.Sign(manifest)), demands_),
              altered.empty() ? "" : "package.tgz: does not match MANIFEST");
    EXPECT_EQ(bytes_shared, payload_.size() / kBlock * kBlock);
  }
  EXPECT_EQ(test::ReadFile(out_ / "package.tgz"), payload_);
}

// Signatures.

TEST_F(PackagePartsTest, TheEarlierOfTwoSigningTimesCounts) {
  const PackageSigner other("other");
  Trust(signer_.Certificate() + other.Certificate());
  const std::time_t now = demands_.time.clock;
  for (const auto& [one, two] : {std::pair(now - 100, now - 200), std::pair(now - 200, now - 100)}) {
    EXPECT_EQ(CheckSignature("text", SignBoth("text", signer_, one, other, two), demands_.keyring, demands_.time),
              now - 200);
  }
}

TEST_F(PackagePartsTest, ASigningTimeThatTheCertificatesDoNotCoverIsNone) {
  const std::time_t now = demands_.time.clock;
  const auto signed_at = [&](std::time_t time) {
    return CheckSignature("text", signer_.Sign("text", time), demands_.keyring, demands_.time);
  };
  EXPECT_EQ(signed_at(now), now);
  EXPECT_EQ(signed_at(now + 20 * kDay), now + 20 * kDay);
  EXPECT_EQ(signed_at(now + 40 * kDay), 0);
  EXPECT_EQ(signed_at(-5), 0);
  EXPECT_EQ(CheckSignature("text", signer_.Sign("text", std::nullopt), demands_.keyring, demands_.time), 0);
}

}  // namespace
}  // namespace orbamira::tools
