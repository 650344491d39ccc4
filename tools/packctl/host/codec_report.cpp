#include "tools/packctl/host/codec_report.h"

#include <stdexcept>

#include "platform/constants.h"
#include "updater/pack_manager.h"

namespace orbamira::packctl {
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
  if (const Console::Held held = console.TakeHeld(); !held.log.empty()) {
    report.problems = held.Reasons("cannot tell which codecs applications ask for");
  }
  return report;
}

}  // namespace orbamira::packctl
