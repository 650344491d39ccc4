#include "tests/fuzz/flow/world.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "platform/constants.h"
#include "platform/posix/files.h"
#include "platform/settings_file.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"

namespace orbamira::fuzz::flow {
namespace {

namespace fs = std::filesystem;

std::string Packs() { return kTargetFolder; }

// Makes the folders only where they are missing: there are many files and few folders.
void Put(const std::string& file, const std::string& text) {
  constexpr mode_t kMode = 0644;
  UniqueFd made(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
  if (!made.valid()) {
    fs::create_directories(fs::path(file).parent_path());
    made = UniqueFd(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
  }
  WriteFully(made.get(), text.data(), text.size(), file);
}

void PutUnlessEmpty(const char* file, const std::string& text) {
  if (!text.empty()) {
    Put(file, text);
  }
}

std::string PathOfHalfBuilt() { return Packs() + "/.codec-pack.partial.abcdef"; }
std::string PathOfHalfRemoved() { return Packs() + "/.removed.abcdef"; }
std::string PathOfTemporary() { return std::string(path::kPackStatusFile) + ".abcdef"; }

void PutPack(const std::string& folder, const std::string& version, bool with_aac) {
  Put(folder + "/INFO",
      std::string("package=\"") + (with_aac ? kHevcAacPack : kHevcPack) + "\"\nversion=\"" + version + "\"\n");
  Put(folder + "/has_hevc", "");
  Put(folder + "/lib/codec", "codec " + version);
  if (with_aac) {
    Put(folder + "/has_aac", "");
  }
}

void PutPacks(const World& world) {
  const bool with_aac = world.Has(World::kAac);
  if (world.Has(World::kPack)) {
    PutPack(path::kPackFolderPath, "1.0", with_aac);
  }
  if (world.Has(World::kBackup)) {
    PutPack(path::kBackupPackFolderPath, "0.9", with_aac);
  }
  if (world.Has(World::kPrevious)) {
    PutPack(path::kPreviousPackFolderPath, "0.8", with_aac);
  }
  if (world.Has(World::kUnpacked)) {
    PutPack(path::kTempPackFolderPath, "0.7", with_aac);
  }
  if (world.Has(World::kHalfBuilt)) {
    Put(PathOfHalfBuilt() + "/lib/codec", "co");
  }
  if (world.has_half_removed()) {
    Put(PathOfHalfRemoved() + "/lib/codec", "co");
    Put(PathOfTemporary(), "{");
  }
}

bool IsBelow(const std::string& name, const std::string& folder) { return name.starts_with(folder + "/"); }

// Of paths in the root. Leftovers are for recovery to remove.
bool IsPlace(const std::string& path, When when) {
  static const std::set<std::string> files = {path::kPkgSetting,
                                              path::kDefaultPkgSetting,
                                              path::kKeyring,
                                              kPackageInfoPath,
                                              common::kDefaultVersionPath,
                                              common::kDefaultOrbaInfoPath,
                                              path::kPackStatusFile,
                                              std::string(path::kPackStatusFile) + ".broken",
                                              path::kHealthFile,
                                              path::kHealthyPackFile,
                                              path::kAcceptedPackagesFile,
                                              path::kCodecRequirementsPath,
                                              path::kCodecRequirementsLock,
                                              path::kPackStatusLock,
                                              path::kPackctlLock,
                                              path::kAccountLock,
                                              std::string(path::kHealthFolder) + "/judge"};
  static const std::set<std::string> folders = [] {
    std::set<std::string> found = {path::kPackFolderPath, path::kPreviousPackFolderPath};
    for (const std::string& file : files) {
      for (fs::path at = fs::path(file).parent_path(); at != test::Root(); at = at.parent_path()) {
        found.insert(at);
      }
    }
    for (fs::path at = kDownloadFolder; at = at.parent_path(), at != test::Root();) {
      found.insert(at);
    }
    found.insert(Packs());
    return found;
  }();
  if (files.contains(path) || folders.contains(path) || IsBelow(path, path::kPackFolderPath) ||
      IsBelow(path, path::kPreviousPackFolderPath)) {
    return true;
  }
  const auto is_leftover = [&](const std::string& place) { return path == place || IsBelow(path, place); };
  return when == When::kUnderWay &&
         (is_leftover(path::kBackupPackFolderPath) || is_leftover(path::kTempPackFolderPath) ||
          is_leftover(kDownloadFolder) || is_leftover(path::kTempPluginAppIdPath) || path == PathOfTemporary() ||
          path.starts_with(Packs() + "/.codec-pack.partial.") || path.starts_with(Packs() + "/.removed.") ||
          path.starts_with(fs::path(kDownloadFolder).parent_path().string() + "/.removed."));
}

void CheckPackFile(const fs::path& file, const struct stat& about, const std::string& pack) {
  Require(S_ISREG(about.st_mode) || S_ISDIR(about.st_mode) || S_ISLNK(about.st_mode),
          "a pack has nothing but files, folders and links");
  Require(S_ISLNK(about.st_mode) || (about.st_mode & 07022) == 0, "no set-id bit and nobody else's to write");
  if (S_ISLNK(about.st_mode)) {
    const fs::path target = fs::read_symlink(file);
    Require(target.is_relative(), "no link is absolute");
    const fs::path end = (file.parent_path() / target).lexically_normal();
    Require(end == pack || IsBelow(end, pack) || end == pack + "/", "no link leads out of its pack");
  }
}

std::set<std::string> NamesIn(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.insert(entry.path().filename());
  }
  return names;
}

}  // namespace

World::World(const std::string& bytes) : there(0), more(0), last(0) {
  ByteReader reader(bytes);
  there = reader.Next();
  more = reader.Next();
  last = reader.Next();
}

int World::health() const {
  constexpr std::array kResults = {0, 3, 1, -9};
  return kResults.at(more >> 2U & 3U);
}

Tree TreeAt(const std::string& path) {
  Tree tree;
  if (fs::symlink_status(path).type() != fs::file_type::directory) {
    return tree;
  }
  for (const auto& entry : fs::recursive_directory_iterator(path)) {
    const std::string name = entry.path().string().substr(path.size());
    tree[name] = entry.is_symlink()     ? "link to " + fs::read_symlink(entry.path()).string()
                 : entry.is_directory() ? "folder"
                                        : "file " + test::ReadFile(entry.path());
  }
  return tree;
}

std::string InfoOf(const std::string& pack, const char* key) { return ReadSetting(pack + "/INFO", key); }

std::string HealthySettings() { return "pack_update_server=http://maker/check\n"; }

void Build(const Input& input, const World& world, const Package& package, const Signer& trusted) {
  for (const auto& entry : fs::directory_iterator(test::Root())) {
    fs::remove_all(entry);
  }
  Put(common::kDefaultOrbaInfoPath, "unique=\"nas\"\n");
  Put(common::kDefaultVersionPath, "major_version=7\nminor_version=2\nbuild_number=100\n");
  Put(kPackageInfoPath, "version=1.0.0\n");
  Put(path::kDefaultPkgSetting, "unpack_limit=1000000\n");
  Put(path::kPkgSetting, input[Part::kSettings]);
  fs::create_directories(Packs());
  fs::create_directories(fs::path(path::kPackStatusLock).parent_path());
  if (world.Has(World::kKeyring)) {
    Put(path::kKeyring, trusted.CertificatePem());
  }
  if (world.has_judges()) {
    Put(std::string(path::kHealthFolder) + "/judge", "");
  }
  PutPacks(world);
  if (world.Has(World::kDownload)) {
    Put(path::kDownloadedOpkPath, package.bytes);
  }
  PutUnlessEmpty(path::kPackStatusFile, input[Part::kStore]);
  PutUnlessEmpty(path::kHealthFile, input[Part::kHealth]);
  PutUnlessEmpty(path::kHealthyPackFile, input[Part::kHealthyPack]);
  PutUnlessEmpty(path::kAcceptedPackagesFile, input[Part::kAccepted]);
  PutUnlessEmpty(path::kCodecRequirementsPath, input[Part::kRequirements]);
}

void CheckPlaces(When when) {
  static const std::set<std::string> beside = NamesIn(test::Root().parent_path());
  Require(NamesIn(test::Root().parent_path()) == beside, "nothing is made beside the root folder");
  Require(fs::symlink_status(kEscape).type() == fs::file_type::not_found, "nothing is made at an absolute name");
  for (auto at = fs::recursive_directory_iterator(test::Root()); at != fs::recursive_directory_iterator(); ++at) {
    const std::string path = at->path();
    struct stat about = {};
    Require(lstat(path.c_str(), &about) == 0, "what is there can be looked at");
    if (!IsPlace(path, when)) {
      Require(false, ("the updater has no place for " + path).c_str());
    }
    for (const char* pack : {path::kPackFolderPath, path::kPreviousPackFolderPath, path::kBackupPackFolderPath}) {
      if (IsBelow(path, pack)) {
        CheckPackFile(path, about, pack);
      }
    }
  }
}

}  // namespace orbamira::fuzz::flow
