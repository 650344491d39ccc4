#pragma once

#include <optional>
#include <string>

#include "tools/packctl/cli/command.h"
#include "tools/packctl/record/answered_check.h"
#include "updater/pack_manager.h"

/// How changing commands end: the outcomes that several of them share. `noun` names the work in a sentence: "the
/// download failed".
namespace orbamira::packctl {

/// An outcome with the status as it is recorded now.
Outcome EndOfChange(ExitStatus exit, const char* result);

/// The work failed.
Outcome FailedChange(const char* noun);

/// The work failed after it had begun: puts in order what it left, and says where that leaves the machine.
Outcome RecoveredChange(const Context& context, const char* noun);

/// Runs the work so that SIGINT and SIGTERM cancel it: what it left is put in order, and the outcome says so.
Outcome RunCancellable(Context& context, Outcome (*run)(Context&));

/// The server offers a version that was rejected on this appliance, and `others` beside it.
Outcome RejectedOffer(const std::string& version, const OtherReleases& others);

/// Notes that the update server has answered, as NoteAnsweredCheck() does. The first time that the server says that the
/// maker has withdrawn the installed pack, the outcome says so too, and with it the history.
void NoteAnswer(Outcome& outcome, const std::string& version, bool is_news, const OtherReleases& others);

/// Gives a downloaded pack up, which is not to be installed any more.
void GiveUpDownload(const Context& context, const updater::IPackStatusHelper& status);

/// The command asks first, there is nobody to ask, and it has no --yes. `why` is what a person would have to know.
Outcome NotConfirmed(const std::string& command, const std::string& why);

/// Somebody was asked and does not want it.
Outcome DeclinedChange();

/// The recorded status forbids the work, whose name continues "cannot".
Outcome ForbiddenChange(const char* verb, updater::PackStatus status);

/// Adds that the codec requirements cannot be read to what a failure says, if that is so: the library's own words do
/// not name them.
void BlameRequirements(const updater::IPackManager& manager, Outcome& outcome);

/// What to say of the status after work that succeeded: nothing, or that an interrupted program has left it.
std::vector<std::string> DoubtsAbout(const std::optional<updater::PackStatus>& status);

}  // namespace orbamira::packctl
