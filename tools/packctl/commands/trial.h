#pragma once

#include "tools/packctl/cli/command.h"
#include "tools/packctl/host/update_objects.h"

/// The trial of a pack: whether it is healthy, and what becomes of it when it is not.
namespace orbamira::packctl {

/// Whether the pack that was just installed is healthy. One that is not has gone with its offer, and the previous
/// pack is in its place. If the way back fails, puts in order what is left, and throws.
bool PassesTrial(const updater::UpdateLock& lock, const UpdateObjects& objects);

/// Runs the command. Before that, ends the trial of a pack that an interrupted update has left unchecked; the command's
/// outcome then says what became of it.
Outcome AfterTrial(Context& context, Outcome (*run)(Context&));

/// The same as a function of its own.
template <Outcome (*kRun)(Context&)>
Outcome AfterTrial(Context& context) {
  return AfterTrial(context, kRun);
}

}  // namespace orbamira::packctl
