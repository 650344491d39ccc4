#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/constants.h"
#include "platform/paths.h"
#include "platform/posix/files.h"
#include "platform/posix/program.h"
#include "platform/settings_file.h"
#include "tools/orba-archive/archive_reader.h"
#include "tools/orba-archive/archive_writer.h"
#include "tools/orba-archive/extractor.h"
#include "tools/orba-archive/layer.h"
#include "tools/orba-archive/own_folder.h"
#include "tools/orba-archive/package.h"

namespace {

using namespace orbamira;
using namespace orbamira::tools;

constexpr int kExitUsage = 64;
constexpr int kLimit = 1;  // long options without a letter
constexpr int kTrust = 2;
constexpr int kOffer = 3;
constexpr uint64_t kDefaultLimit = 16ULL << 30;

constexpr const char* kUsage =
    "Usage: orba-archive -xf ARCHIVE [-C DIR] [--limit BYTES]\n"
    "       orba-archive -tf ARCHIVE\n"
    "       orba-archive --verify PACKAGE [-C DIR]\n"
    "       orba-archive -cf ARCHIVE [-C DIR] MEMBER...\n"
    "Unpack, list, verify or create a package archive; called as orba-tar, its payload.\n"
    "\n"
    "  -x             unpack into DIR, where no existing file is overwritten; a folder of\n"
    "                 the updater's own, for the download or for unpacking, is emptied\n"
    "                 first, but for ARCHIVE and what came out of a package with it\n"
    "  -t             list the members, one a line\n"
    "  -c             create ARCHIVE from members of DIR; the same members give the\n"
    "                 same bytes, dated SOURCE_DATE_EPOCH or 1970\n"
    "  -f ARCHIVE     the archive: a regular file\n"
    "  -C DIR         the folder, which must exist; the current one by default\n"
    "  --limit BYTES  unpack no more than this, in blocks of 4096 bytes and one more for\n"
    "                 each file, folder and link; by default the unpack_limit of the\n"
    "                 settings, or 17179869184\n"
    "  --verify PACKAGE\n"
    "                 read PACKAGE to its end and judge it as -x does; write nothing,\n"
    "                 or with -C the INFO of an accepted one into DIR\n"
    "  --offer NAME=VERSION\n"
    "                 where there is a keyring, refuse a package whose INFO names another\n"
    "                 pack than this\n"
    "  --trust        judge a package as if there were no keyring\n"
    "  --help         print this text\n"
    "  --version      print the version\n"
    "\n"
    "Where there is a keyring, " ORBAMIRA_SETTINGS_FOLDER
    "/keyring.pem, a package is unpacked only\n"
    "when it is signed by a certificate that the keyring trusts, is for this product, and\n"
    "is not older than the installed pack or than the minimum that one before it named.\n"
    "With ORBAMIRA_ALLOW_OLDER=1 in the environment it may be older.\n";

constexpr std::array kLongOptions = {option{"limit", required_argument, nullptr, kLimit},
                                     option{"verify", required_argument, nullptr, 'y'},
                                     option{"offer", required_argument, nullptr, kOffer},
                                     option{"trust", no_argument, nullptr, kTrust},
                                     option{"help", no_argument, nullptr, 'h'},
                                     option{"version", no_argument, nullptr, 'v'},
                                     option{nullptr, 0, nullptr, 0}};

struct UsageError {};

struct Options {
  char action = '\0';  // x, t, c, and y to verify; h and v print the help and the version
  std::string archive;
  std::optional<std::string> folder;
  std::optional<uint64_t> limit;
  std::optional<OfferedPack> offer;
  bool trust = false;
  std::vector<std::string> members;
};

template <typename Number>
std::optional<Number> ParseNumber(std::string_view text) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0) {
    return std::nullopt;
  }
  return number;
}

void CheckCombination(const Options& options) {
  const bool judges = options.action == 'x' || options.action == 'y';
  if (options.archive.empty() || (options.action == 't' && options.folder) ||
      (options.action != 'x' && options.limit) || ((options.trust || options.offer) && !judges) ||
      (options.action == 'c') == options.members.empty()) {
    throw UsageError();
  }
}

uint64_t ParseLimit(std::string_view text) {
  const std::optional<uint64_t> limit = ParseNumber<uint64_t>(text);
  if (!limit) {
    throw UsageError();
  }
  return *limit;
}

OfferedPack ParseOffer(std::string_view text) {
  const std::size_t separator = text.find('=');
  if (separator == 0 || separator >= text.size() - 1) {
    throw UsageError();
  }
  return {.name = std::string(text.substr(0, separator)), .version = std::string(text.substr(separator + 1))};
}

Options ParseOptions(int argc, char** argv) {
  Options options;
  opterr = 0;
  for (int letter = 0; (letter = getopt_long(argc, argv, "xtcf:C:", kLongOptions.data(), nullptr)) != -1;) {
    switch (letter) {
      case 'x':
      case 't':
      case 'c':
      case 'y':
        if (options.action != '\0') {
          throw UsageError();
        }
        options.action = static_cast<char>(letter);
        options.archive = letter == 'y' ? optarg : options.archive;
        break;
      case 'f':
        options.archive = optarg;
        break;
      case 'C':
        options.folder = optarg;
        break;
      case kLimit:
        options.limit = ParseLimit(optarg);
        break;
      case kOffer:
        options.offer = ParseOffer(optarg);
        break;
      case kTrust:
        options.trust = true;
        break;
      case 'h':
      case 'v':
        options.action = static_cast<char>(letter);
        return options;
      default:
        throw UsageError();
    }
  }
  options.members.assign(argv + optind, argv + argc);
  if (options.action == '\0') {
    throw UsageError();
  }
  CheckCombination(options);
  return options;
}

UniqueFd OpenArchive(const std::string& path) {
  UniqueFd archive(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!archive.valid()) {
    ThrowErrno("cannot open");
  }
  if (!S_ISREG(Stat(archive.get(), "cannot open").st_mode)) {
    throw std::runtime_error("not a regular file");
  }
  return archive;
}

UniqueFd OpenFolder(const Options& options) {
  const std::string path = options.folder.value_or(".");
  UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) {
    ThrowErrno(path);
  }
  return folder;
}

/// The limit from the machine's settings, or else from the maker's.
uint64_t LimitFromSettings() {
  const std::optional<Setting> setting = ReadOwnOrMakersSetting(common::kUnpackLimit);
  if (!setting) {
    return kDefaultLimit;
  }
  const std::optional<uint64_t> limit = ParseNumber<uint64_t>(setting->value);
  if (!limit) {
    throw std::runtime_error(setting->file + ": " + common::kUnpackLimit +
                             " is not a number of bytes: " + setting->value);
  }
  return *limit;
}

/// What the package is judged by, if there is a keyring. A link that leads nowhere counts as a keyring that cannot be
/// read, because somebody who made it does not want every package accepted.
std::optional<Demands> DemandsFor(const Options& options) {
  if (options.trust) {
    return std::nullopt;
  }
  struct stat status = {};
  if (lstat(path::kKeyring, &status) == 0) {
    return ReadDemands(path::kKeyring, options.offer);
  }
  if (errno != ENOENT) {
    ThrowErrno(path::kKeyring);
  }
  return std::nullopt;
}

void Unpack(const Options& options, Layer layer) {
  const UniqueFd folder = OpenFolder(options);
  const UniqueFd file = OpenArchive(options.archive);
  const uint64_t limit = options.limit ? *options.limit : LimitFromSettings();
  umask(0);
  const bool is_own = IsOwnFolder(folder.get());
  if (is_own) {
    ClearOwnFolder(folder.get(), file.get(), layer);
  }
  if (layer == Layer::kPackage) {
    const std::optional<Accepted> accepted = UnpackPackage(file.get(), folder.get(), limit, DemandsFor(options));
    if (accepted && is_own) {
      Remember(*accepted);
    }
    return;
  }
  // The payload comes from a package that was checked.
  ArchiveReader archive(file.get(), layer);
  Extractor(folder.get(), limit).Unpack(archive);
}

void Verify(const Options& options) {
  const UniqueFd file = OpenArchive(options.archive);
  static_cast<void>(LimitFromSettings());  // which -x could not do without
  if (!options.folder) {
    CheckPackage(file.get(), DemandsFor(options));
    return;
  }
  umask(0);
  UnpackInfo(file.get(), OpenFolder(options).get(), DemandsFor(options));
}

void Print(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) < 0) {
    ThrowErrno("cannot print");
  }
}

void List(const Options& options, Layer layer) {
  const UniqueFd file = OpenArchive(options.archive);
  ArchiveReader archive(file.get(), layer);
  Member member;
  while (archive.Next(member)) {
    Print(Printable(member.name) + "\n");
    for (Piece piece; archive.Read(piece);) {
    }
  }
}

void Create(const Options& options, Layer layer) {
  const char* epoch = std::getenv("SOURCE_DATE_EPOCH");  // NOLINT(concurrency-mt-unsafe): there is one thread
  const std::optional<time_t> mtime = ParseNumber<time_t>(epoch == nullptr ? "0" : epoch);
  if (!mtime) {
    throw std::runtime_error("SOURCE_DATE_EPOCH is not a number of seconds");
  }
  CreateArchive(options.archive, layer, OpenFolder(options).get(), options.members, *mtime);
}

void Run(const Options& options, Layer layer) {
  switch (options.action) {
    case 'x':
      Unpack(options, layer);
      break;
    case 't':
      List(options, layer);
      break;
    case 'c':
      Create(options, layer);
      break;
    case 'y':
      Verify(options);
      break;
    case 'h':
      Print(kUsage);
      break;
    default:
      Print("orba-archive " ORBAMIRA_VERSION "\n");
      break;
  }
  if (std::fflush(stdout) != 0) {
    ThrowErrno("cannot print");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view path = argc > 0 ? argv[0] : "orba-archive";
  const std::string program(path.substr(path.rfind('/') + 1));
  const Layer layer = program == "orba-tar" ? Layer::kPayload : Layer::kPackage;

  IgnoreOutputSignals();
  // Names in extended headers are UTF-8, and libarchive converts them to the locale's character set.
  static_cast<void>(std::setlocale(LC_CTYPE, "C.UTF-8"));  // NOLINT(concurrency-mt-unsafe): there is one thread

  Options options;
  try {
    options = ParseOptions(argc, argv);
    Run(options, layer);
  } catch (const UsageError&) {
    static_cast<void>(std::fputs(kUsage, stderr));
    return kExitUsage;
  } catch (const std::exception& error) {
    const std::string line = program + ": " + options.archive + ": " + error.what();
    static_cast<void>(std::fprintf(stderr, "%s\n", Printable(line).c_str()));
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
