#include "tools/packctl/commands/status.h"

#include <ctime>
#include <filesystem>

#include "platform/constants.h"
#include "platform/json/json_values.h"
#include "platform/posix/file_status.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/commands/watch.h"
#include "tools/packctl/policy/judged_offer.h"
#include "tools/packctl/record/lock_holder.h"
#include "tools/packctl/record/rejection.h"
#include "tools/packctl/record/support_period.h"
#include "tools/packctl/view/status_report.h"
#include "tools/packctl/view/wait_words.h"

namespace orbamira::packctl {
namespace {

std::vector<std::string> InstalledCodecs() {
  std::vector<std::string> codecs;
  for (const auto& [file, name] : {std::pair{path::kHasHevcPath, "HEVC"}, {path::kHasAacPath, "AAC"}}) {
    if (std::error_code error; std::filesystem::exists(StatusOf(file, error))) {
      codecs.emplace_back(name);
    }
  }
  return codecs;
}

StatusFacts GatherFacts() {
  const SeenStatus seen = LookAtStatus();
  return {.record = seen.record,
          .is_interrupted = seen.is_interrupted,
          .installed = ReadInstalledPack(),
          .codecs = InstalledCodecs(),
          .check = ReadAnsweredCheck(),
          .last_entry = ReadNewestEntry(),
          .support_end = ReadSupportEnd(),
          .hold = ReadHold(std::time(nullptr)),
          .wait = WaitOf(seen.record),
          .rejected = updater::RejectedVersions()};
}

Tone ToneOf(Health health) {
  switch (health) {
    case Health::kGood:
      return Tone::kGood;
    case Health::kWaits:
      return Tone::kWarning;
    case Health::kBad:
      break;
  }
  return Tone::kBad;
}

}  // namespace

SeenStatus LookAtStatus() {
  SeenStatus seen{.record = ReadStatus()};
  const auto is_left = [&] { return IsUnderWay(seen.record.status) && !HolderOf(path::kPackctlLock); };
  if (is_left()) {
    seen.record = ReadStatus();  // the work may have ended since, which is recorded before the lock is free
    seen.is_interrupted = is_left();
  }
  return seen;
}

Json::Value StatusAnswer(const SeenStatus& seen) {
  Json::Value answer = StatusJson(seen.record);
  answer["interrupted"] = seen.is_interrupted;
  answer["last_check"] = AnsweredCheckJson(ReadAnsweredCheck());
  const std::optional<std::chrono::sys_days> support_end = ReadSupportEnd();
  answer["support_until"] = support_end ? Json::Value(DayText(*support_end)) : Json::Value();
  answer["wait"] = WaitJson(WaitOf(seen.record));
  answer["hold"] = HoldJson(ReadHold(std::time(nullptr)));
  answer["previous_version"] = TextOrNull(updater::PreviousVersion());
  answer["rejected"] = RejectedJson(updater::RejectedVersions());
  return answer;
}

Outcome Status(Context& context) {
  if (context.options.watch) {
    return WatchStatus(context);
  }
  if (context.options.json) {
    return {.members = StatusAnswer(LookAtStatus())};
  }
  const StatusFacts facts = GatherFacts();
  return {.text = context.console.Painted(StatusHeadline(facts) + "\n", ToneOf(HealthOf(facts))) + StatusLines(facts) +
                  (context.options.verbose ? RecordLines(facts.record) : "")};
}

}  // namespace orbamira::packctl
