#include <json/reader.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <utility>

#include "platform/constants.h"
#include "platform/http/shown_link.h"
#include "platform/network/request.h"
#include "platform/posix/file_status.h"
#include "tools/packctl/doctor/checks.h"
#include "tools/packctl/view/progress_text.h"
#include "updater/json_text.h"
#include "updater/kos_helper.h"
#include "updater/pack_manager.h"
#include "updater/update_request.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kServer = "server";
constexpr const char* kClock = "clock";
constexpr const char* kSpace = "space";
constexpr const char* kPublish = "publish the pack again with mkpack";
constexpr long kOk = 200;

// The updater waits as long as the server takes; a doctor must come to an end.
NetworkReply Ask(NetworkRequest request) {
  request.connect_limit = std::chrono::seconds(10);
  request.limit = std::chrono::seconds(30);
  return AskNetwork(request);
}

NetworkReply AskServer(const updater::UpdateRequest& request) {
  NetworkRequest get{.url = request.address, .most_bytes = updater::kJsonTextLimit};
  for (const updater::QueryParameter& parameter : updater::QueryOf(request)) {
    get.query.emplace_back(parameter.key, parameter.value);
  }
  return Ask(std::move(get));
}

// The library's manager, but for the lock of the requirements: another process may keep that for ever, and a diagnosis
// makes no lock file.
class UnlockedManager : public updater::PackManager {
 public:
  UnlockedManager() : PackManager(nullptr, nullptr, updater::KOSHelper::Create(), nullptr, nullptr, nullptr) {}

  bool IsCodecRequested(const std::string& codec) const override {
    try {
      const FileText requirements = ReadText(path::kCodecRequirementsPath);
      return updater::AsksForCodec(requirements.text.value_or(""), codec).value_or(false);
    } catch (const Json::Exception&) {  // which the check of the state tells
      return false;
    }
  }
};

void CheckClock(const NetworkReply& reply, Findings& findings) {
  if (!reply.date) {
    return;
  }
  constexpr std::time_t kMostSeconds = 60L * 60;
  const std::time_t difference = std::time(nullptr) - *reply.date;
  if (std::abs(difference) > kMostSeconds) {
    findings.push_back(
        {kClock,
         "the clock differs from the update server's by " + std::to_string(std::abs(difference) / 60) + " minutes",
         "set the clock: certificates are judged by it"});
  }
}

bool IsDigest(const std::string& text) {
  constexpr std::size_t kSha256 = 64;
  constexpr std::size_t kSha512 = 128;
  return (text.size() == kSha256 || text.size() == kSha512) &&
         text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

std::string TextMember(const Json::Value& pack, const char* key) {
  return pack[key].isString() ? pack[key].asString() : "";
}

void CheckPackage(const std::string& link, OfferedPackage& offer, Findings& findings) {
  const NetworkReply reply = Ask({.url = link, .is_head = true});
  constexpr long kNoSuchMethod = 405;
  constexpr long kNotImplemented = 501;
  if (reply.status == kNoSuchMethod || reply.status == kNotImplemented) {
    return;  // the server answers no such question, and may give the package all the same
  }
  if (reply.status != kOk) {
    const std::string why = reply.status == 0 ? reply.error : "status " + std::to_string(reply.status);
    findings.push_back({kServer, "the package on offer cannot be had from " + ShownLink(link) + ": " + why,
                        "put the package there, or correct the link in the reply"});
    return;
  }
  if (reply.length) {
    offer.package_size = reply.length;
  }
}

void CheckReply(const std::string& text, OfferedPackage& offer, Findings& findings) {
  Json::Value reply;
  bool parsed = false;
  try {
    parsed = Json::Reader().parse(text, reply) && reply.isObject();
  } catch (const Json::Exception&) {  // nested too deep
    parsed = false;
  }
  if (!parsed) {
    findings.push_back({kServer, "the update server's reply is not a JSON object",
                        "see that the address is that of the reply which mkpack writes"});
    return;
  }
  const std::string name = updater::PackName(updater::ChoosePack(UnlockedManager()).with_aac);
  const Json::Value& pack = reply[name];
  if (!pack.isObject()) {
    findings.push_back({kServer, "the update server offers no pack called " + name, "publish one with mkpack"});
    return;
  }
  if (pack["size"].isUInt64()) {
    offer.package_size = pack["size"].asUInt64();
  }
  if (TextMember(pack, param::kVersion).empty()) {
    findings.push_back({kServer, "the offer of " + name + " names no version", kPublish});
  }
  if (!IsDigest(TextMember(pack, param::kChecksum))) {
    findings.push_back(
        {kServer, "the offer of " + name + " has no SHA-256 or SHA-512 checksum, so no download passes", kPublish});
  }
  if (const std::string link = TextMember(pack, param::kLink); SchemeOf(link).empty()) {
    findings.push_back({kServer, "the offer of " + name + " has no http or https link", kPublish});
  } else {
    CheckPackage(link, offer, findings);
  }
}

struct Room {
  dev_t device = 0;
  std::uint64_t bytes = 0;
};

// What is free where the folder is, or will be made.
Room RoomFor(fs::path folder) {
  std::error_code error;
  while (!fs::exists(StatusOf(folder, error)) && folder.has_relative_path()) {
    folder = folder.parent_path();
  }
  struct stat about {};
  struct statvfs space {};
  if (stat(folder.c_str(), &about) != 0 || statvfs(folder.c_str(), &space) != 0) {
    return {};
  }
  return {.device = about.st_dev, .bytes = std::uint64_t{space.f_bavail} * space.f_frsize};
}

std::string SizeWords(std::uint64_t bytes) {
  return FormatBytes(static_cast<std::int64_t>(std::min(bytes, std::uint64_t{INT64_MAX})));
}

void CheckRoom(const char* folder, std::uint64_t free, std::uint64_t needed, Findings& findings) {
  if (free < needed) {
    findings.push_back({kSpace,
                        "for an update " + std::string(folder) + " needs about " + SizeWords(needed) +
                            ", and there is room for " + SizeWords(free),
                        "make room there"});
  }
}

}  // namespace

Findings CheckServer(OfferedPackage& offer) {
  Findings findings;
  const updater::UpdateRequest request = updater::MakeUpdateRequest(*updater::KOSHelper::Create());
  if (SchemeOf(request.address).empty()) {
    return findings;  // which the check of the settings tells
  }
  const NetworkReply reply = AskServer(request);
  CheckClock(reply, findings);
  if (reply.is_too_long) {
    findings.push_back({kServer, "the update server's reply is too long", "see that the address is that of a reply"});
  } else if (reply.status == 0 || reply.failed) {
    findings.push_back({kServer, "the update server does not answer: " + reply.error,
                        "see to the network and the name service, and that the server runs"});
  } else if (reply.status != kOk) {
    findings.push_back({kServer, "the update server answers with status " + std::to_string(reply.status),
                        std::string("correct ") + common::kPackUpdateServer + ", or publish the reply there"});
  } else {
    CheckReply(reply.body, offer, findings);
  }
  return findings;
}

Findings CheckSpace(const OfferedPackage& offer) {
  // A payload unpacks to about three times its size, and lies beside it meanwhile; the record needs next to nothing.
  constexpr std::uint64_t kUnpacked = 4;
  constexpr std::uint64_t kAlways = 1UL << 20U;
  const std::uint64_t size = std::min(offer.package_size.value_or(0), std::uint64_t{INT64_MAX} / (2 * kUnpacked));
  const Room download = RoomFor(kDownloadFolder);
  const Room packages = RoomFor(kTargetFolder);
  Findings findings;
  if (download.device == packages.device) {
    CheckRoom(kTargetFolder, packages.bytes, kAlways + (kUnpacked + 1) * size, findings);
  } else {
    CheckRoom(kDownloadFolder, download.bytes, size, findings);
    CheckRoom(kTargetFolder, packages.bytes, kAlways + kUnpacked * size, findings);
  }
  return findings;
}

}  // namespace orbamira::packctl
