#pragma once

#include <json/value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/cli/console.h"
#include "tools/packctl/record/failure.h"
#include "tools/packctl/record/history.h"
#include "updater/enumerations.h"

namespace CLI {
class App;
}

namespace orbamira::updater {
class UpdateLock;
}

/// What a command of packctl is: what it is given, what it answers, and what the command line tells of it.
namespace orbamira::packctl {

/// What packctl's exit status tells; scripts rely on the numbers. A command that a signal ends early ends by that
/// signal, so that a shell sees 128 and its number; one that runs until a signal stops it ends with kExitDone.
enum ExitStatus : int {
  kExitDone = 0,
  kExitFailed = 1,
  kExitNothingToDo = 2,
  kExitNotPermitted = 3,  ///< by the recorded status
  kExitUsage = 64,
  kExitBusy = 75,        ///< another program is at work: later it may succeed
  kExitCancelled = 130,  ///< by SIGINT or SIGTERM, and put in order; 128 + SIGINT
};

/// What a changing command tells beside its result.
struct Change {
  std::optional<updater::PackStatus> status = {};  ///< recorded afterwards; empty when that cannot be read
  bool happened = false;                           ///< something was changed or found: the history records it
  std::optional<PackIdentity> offer = {};          ///< the pack that was found or fetched and now waits
};

/// What a command has to say when it is done.
struct Outcome {
  ExitStatus exit = kExitDone;
  std::string result = {};                  ///< how it ended, in one word; empty where the members say it all
  std::optional<Change> change = {};        ///< of a changing command that came to an end of its own
  Json::Value members = Json::objectValue;  ///< more of the answer to a program; null when all was printed already
  std::string text = {};                    ///< the answer to a person; whole lines, may be empty
  std::vector<std::string> problems = {};   ///< sentences for the standard error; of a failure, behind its log
  std::optional<Failure> failure = {};      ///< why it was refused; why it failed is found out by the caller
  std::string again = {};                   ///< the words that repeat the command; empty when its name does
  std::string version = {};                 ///< of the pack that the command worked on; empty when not known
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
  bool json = false;     ///< the answer will be JSON: nothing else is shown in between
  bool verbose = false;  ///< what is behind the result is shown too: the log, the recorded status
  bool quiet = false;    ///< nothing is shown but why it failed or was refused
  ColorChoice color = ColorChoice::kAuto;
  int wait = 0;               ///< seconds to wait for another program at work to end
  bool watch = false;         ///< status: go on until interrupted
  bool cancelled = false;     ///< this process took the place of one that was cancelled
  bool yes = false;           ///< remove, rollback: do not ask
  bool now = false;           ///< download, update: also a staged release before the appliance's turn
  bool reinstall = false;     ///< update and install from a file: also what is installed already
  bool older = false;         ///< update, install: also what is older than what is installed
  std::size_t limit = 50;     ///< history: only so many entries
  bool no_pager = false;      ///< history: print them, on a terminal too
  std::string output = {};    ///< metrics: the file to replace; empty for the standard output
  std::string file = {};      ///< install: this package; empty for the one that was downloaded
  bool trust = false;         ///< install from a file: without a signature, too
  bool automatic = false;     ///< update: nobody asked for it, so it waits as the settings say
  bool despite_hold = false;  ///< update, install: also while updates are held
  std::string until = {};     ///< hold: a date; empty for a hold without an end
  SignInOptions sign_in = {};
  WebOptions web = {};
};

/// What a command may use besides the library.
struct Context {
  Console& console;
  Options options;
  const updater::UpdateLock* lock = nullptr;  ///< held while an exclusive or changing command runs
};

/// What a command does to the machine, and so what it may run beside.
enum class Effect {
  kNone,       ///< it runs at any time
  kExclusive,  ///< it changes nothing that lasts, but runs beside no changing command
  kChange,     ///< it changes something, and the history records it
};

/// A command, and what its help, its man page and its completions tell of it.
struct Command {
  const char* name;  ///< one word, or two for a command of a group
  Effect effect;
  const char* summary;
  const char* details;
  Outcome (*run)(Context&);  ///< may throw what it fails with; null where the account program runs it
  void (*add_options)(CLI::App& parser, Options& options) = nullptr;  ///< those that it alone has
};

}  // namespace orbamira::packctl
