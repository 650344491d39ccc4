#include "tools/packctl/commands/commands.h"

#include <array>

#include "tools/packctl/cli/account_commands.h"
#include "tools/packctl/cli/command_line.h"

namespace orbamira::packctl {
namespace {

constexpr std::array kCommands = {
    Command{"check", Effect::kChange, "Ask the update server for a new pack",
            "Records a newer pack as waiting for download, whatever the recorded status was.\n"
            "Exit status: 0 a new pack is available, 2 nothing new, or no update server is named, 1 the check failed.\n"
            "Example: packctl check && packctl update",
            Check},
    Command{"download", Effect::kChange, "Download and verify the pack on offer",
            "Permitted when the status is need_download or download_failed. Nothing is installed yet; follow with\n"
            "\"packctl install\".",
            Download},
    Command{"install", Effect::kChange, "Install the downloaded pack",
            "Permitted when the status is need_install or install_failed. Applications are told before and after.\n"
            "When it fails, the previous pack comes back.",
            Install},
    Command{"update", Effect::kChange, "Download the pack on offer and install it",
            "Permitted when the status is lost, need_download, need_install, download_install_failed or up_to_date.\n"
            "The versions are not compared: the pack on offer is fetched even if it is installed already. Run\n"
            "\"packctl check\" first to fetch only what is new. When it fails, the previous pack comes back.",
            Update},
    Command{"remove", Effect::kChange, "Remove the installed pack",
            "Applications are not told, and the recorded status stays as it is. Not permitted while that says work is\n"
            "under way.\n"
            "Exit status 2: no pack is installed.",
            Remove},
    Command{"status", Effect::kNone, "Show the recorded status and progress",
            "May be run at any time, also while an update is running. With --json the keys are those of the status\n"
            "store; sizes are numbers of bytes.\n"
            "With --watch each change is shown as it comes, until SIGINT or SIGTERM (Ctrl-C) ends it with exit status\n"
            "0; with --json too, one object a line. It sleeps while nothing changes.",
            Status, AddWatchOption},
    Command{
        "info", Effect::kNone, "Show the installed pack",
        "With --json: installed, package, version, and updated in seconds since the epoch; the last three are null\n"
        "without a pack. Exit status 0 also when none is installed.",
        Info},
    Command{"history", Effect::kNone, "Show what was done, when and how it ended",
            "Tells of each check, download, install, update, remove and recover that changed something, found a new\n"
            "pack or failed, oldest first. At most half a mebibyte is kept. A run that was killed leaves no entry;\n"
            "the recovery after it does.\n"
            "With --json: the list entries, and damaged, the count of lines that could not be read. An entry has time\n"
            "(seconds since the epoch, at its end), duration_ms, command, from (the pack that was installed before),\n"
            "to (the pack that is installed or waits since), result, status, exit and errors.",
            ShowHistory, AddLimitOption},
    Command{"doctor", Effect::kNone, "Look for what is wrong and say what to do about it",
            "Looks at the settings, permissions, keyring, plugins, locks, the state of the pack and its record, the\n"
            "update server, the clock and the free space. Changes nothing. Each plugin is asked for its ids, and the\n"
            "server for its offer. Takes half a minute when the server is silent. Run it as root.\n"
            "Exit status: 0 all is well, 1 something is wrong.\n"
            "With --json: result (well or faults) and the list findings of check, problem and remedy.",
            Doctor},
    Command{"codecs", Effect::kNone, "Show which codecs are installed and which are asked for",
            "With --json: the lists installed and requested.", Codecs},
    Command{
        "web", Effect::kNone, "Show all of this in a browser, until interrupted",
        "Prints the page's address, and a link with the token that checking and updating from the page takes. Runs\n"
        "until SIGINT or SIGTERM (Ctrl-C) ends it with exit status 0; an update that was begun goes on.\n"
        "A listening socket that systemd hands over (LISTEN_FDS) is used in place of --listen and --port.\n"
        "With --json: address and token, which is null with --token-file.",
        Web, AddWebOptions},
    Command{"plugins", Effect::kExclusive, "List the plugins that are told of installs",
            "Prints one application id a line; with --json: the list app_ids.", Plugins},
    SignInCommand(nullptr),
    SignOutCommand(nullptr),
    AccountStatusCommand(nullptr),
    Command{
        "recover", Effect::kChange, "Clear what an interrupted update left behind",
        "Brings the previous pack back where a new one did not get into place, removes temporary files and folders,\n"
        "and turns a status that says work is under way into its failed form. Run at boot, before anything else\n"
        "uses the pack; by hand only while no other program is updating it.\n"
        "Exit status 0: everything is in order now, 1: something could not be mended.",
        RunRecovery},
};

}  // namespace

std::span<const Command> PackctlCommands() { return kCommands; }

}  // namespace orbamira::packctl
