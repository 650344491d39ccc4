#include "tools/packctl/host/codec_report.h"

#include <fstream>
#include <stdexcept>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/json/json_object.h"
#include "updater/json_text.h"
#include "updater/pack_manager.h"

namespace orbamira::packctl {
namespace {

Json::Value ReadRequirements() {
  const store::FileLock lock(path::kCodecRequirementsLock);
  std::ifstream file(path::kCodecRequirementsPath);
  return ParseJsonObject(updater::ReadJsonText(file)).value_or(Json::objectValue);
}

// A list of names, or an object whose members they are.
std::vector<std::string> Names(const Json::Value& applications) {
  constexpr std::size_t kMost = 20;
  constexpr std::size_t kLongest = 100;
  std::vector<std::string> names;
  for (auto entry = applications.begin(); entry != applications.end() && names.size() < kMost; ++entry) {
    const std::string name = entry->isString() ? entry->asString() : entry.name();
    if (!name.empty()) {
      names.push_back(name.substr(0, kLongest));
    }
  }
  return names;
}

}  // namespace

CodecReport ReadCodecs(Console& console) {
  const auto manager = updater::PackManager::Create();
  if (manager == nullptr) {
    throw std::runtime_error("cannot use the updater");
  }
  console.TakeHeld();
  CodecReport report;
  if (manager->HasHevcCurrently()) {
    report.installed.emplace_back(kHevc);
  }
  if (manager->HasAacCurrently()) {
    report.installed.emplace_back(kAac);
  }
  for (const char* codec : {kHevc, kAac}) {
    if (manager->IsCodecRequested(codec)) {
      report.requested.emplace_back(codec);
    }
  }
  const Json::Value requirements = ReadRequirements();
  for (const std::string& codec : report.requested) {
    report.applications[codec] = Names(requirements[codec]);
  }
  if (const Console::Held held = console.TakeHeld(); !held.log.empty()) {
    report.problems = held.Reasons("cannot tell which codecs applications ask for");
  }
  return report;
}

}  // namespace orbamira::packctl
