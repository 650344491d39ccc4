#pragma once

#include <json/value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/cli/console.h"
#include "tools/packctl/record/history.h"

namespace orbamira::updater {
class UpdateLock;
}

namespace orbamira::packctl {

/// What packctl's exit status tells; scripts rely on the numbers.
enum ExitStatus : int {
  kExitDone = 0,
  kExitFailed = 1,
  kExitNothingToDo = 2,
  kExitNotPermitted = 3,  ///< by the recorded status, or because another program is at work
  kExitUsage = 64,
};

/// What a command has to say when it is done.
struct Outcome {
  ExitStatus exit = kExitDone;
  Json::Value json = Json::objectValue;    ///< the answer to a program; null when all was printed already
  std::string text = {};                   ///< the answer to a person; whole lines, may be empty
  std::vector<std::string> problems = {};  ///< sentences for the standard error, after the reasons that were logged
  bool changed = false;                    ///< something was changed or found: the history tells of it
  std::optional<PackIdentity> offer = {};  ///< the pack that was found or fetched and now waits
};

/// What the user asked of a sign-in.
struct SignInOptions {
  std::string issuer = {};
  std::string client_id = {};  ///< what the provider calls this client; empty: the client's own name
  int port = 0;                ///< where the provider's answer is taken; 0: a free one
  int timeout = 300;           ///< seconds to wait for it
  bool replace = false;        ///< whatever account there is
};

/// What the user asked of the command web.
struct WebOptions {
  std::string listen = "127.0.0.1";          ///< a numeric address
  int port = 0;                              ///< 0 for one that is free
  std::string token_file = {};               ///< where the token is; empty for one of the moment, which is printed
  std::vector<std::string> host_names = {};  ///< further names under which it may be asked
  std::string update_unit = {};              ///< the systemd unit that updates; empty: packctl itself
};

/// What the user asked of a command.
struct Options {
  bool json = false;                      ///< the answer will be JSON: nothing else is shown in between
  bool verbose = false;                   ///< after a failure, what was logged is shown too
  bool watch = false;                     ///< status: go on until interrupted
  std::optional<std::size_t> limit = {};  ///< history: only so many entries
  SignInOptions sign_in = {};
  WebOptions web = {};
};

/// What a command may use besides the library.
struct Context {
  Console& console;
  Options options;
  const updater::UpdateLock* lock = nullptr;  ///< held while a changing command runs
};

/// The queries: they change neither pack nor record and may run beside anything. A missing store or lock file may be
/// made on the way, and a broken store is set aside.
Outcome Status(Context& context);
Outcome Info(Context& context);
Outcome Codecs(Context& context);
Outcome ShowHistory(Context& context);

/// Looks for what is wrong with the machine and says what to do about it. Changes nothing, makes nothing.
Outcome Doctor(Context& context);

/// Shows the state to browsers, and checks and updates for those that bring the token, until a signal ends the program.
Outcome Web(Context& context);

/// Asks the plugins who they are. The library's answer file allows one at a time, so it excludes the changing commands.
Outcome Plugins(Context& context);

/// The changing commands, for a caller that keeps two of them apart. A flow that fails after it began, and a removal
/// that fails, run the recovery before they return; one that the recorded status forbids changes nothing.
Outcome Check(Context& context);
Outcome Download(Context& context);
Outcome Install(Context& context);
Outcome Update(Context& context);
Outcome Remove(Context& context);
Outcome RunRecovery(Context& context);

}  // namespace orbamira::packctl
