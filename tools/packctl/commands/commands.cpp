#include "tools/packctl/commands/commands.h"

#include <array>

#include "tools/packctl/cli/account_commands.h"
#include "tools/packctl/cli/command_line.h"

namespace orbamira::packctl {
namespace {

constexpr std::array kCommands = {
    Command{
        "check", Effect::kChange, "Ask the update server for a new pack",
        "If there is a newer pack, the recorded status becomes need_download, whatever it was before.\n"
        "Exit status: 0 a new pack is available, 2 nothing new, the offer rejected, or no update server set, 1 the\n"
        "check failed.\n"
        "Example: packctl check && packctl update",
        Check, AddCancelOption},
    Command{"download", Effect::kChange, "Download and verify the pack on offer",
            "Permitted if the status is need_download or download_failed. To install the pack afterwards, run\n"
            "\"packctl install\".",
            Download, AddDownloadOptions},
    Command{
        "install", Effect::kChange, "Install the downloaded pack",
        "Permitted if the status is need_install or install_failed. Plugins are told before and after. If the\n"
        "install fails, or the new pack fails its health check, the previous pack comes back.\n"
        "With --file it installs that package, as an update would, whatever the status, but not while it says that\n"
        "work is in progress. The package must be signed by somebody whom the appliance's keyring trusts, fit the\n"
        "appliance, and be no older than the installed pack.\n"
        "Exit status 2, with --file: already up to date.\n"
        "Example: packctl install --file /media/stick/pack.opk",
        Install, AddInstallOptions},
    Command{
        "update", Effect::kChange, "Download the pack on offer and install it",
        "Permitted if the status is lost, need_download, need_install, download_install_failed or up_to_date.\n"
        "If nothing newer is on offer, nothing is done. If the update fails or you interrupt it, the previous pack\n"
        "comes back. So it does if the new pack fails its health check; its version is rejected then, and not taken\n"
        "again. A staged release is taken when this appliance is in its share, with --now at once.\n"
        "With --automatic, as a service runs it, nothing is checked: a pack that a check has found is downloaded,\n"
        "installed or left alone as the settings say; see updater.conf(5). Without it nothing waits but for a hold.\n"
        "Exit status 2: already up to date, the version on offer is rejected, or the pack waits.",
        Update, AddUpdateOptions},
    Command{
        "remove", Effect::kChange, "Remove the installed pack",
        "Asks first if an application needs a codec of the pack; without a terminal to ask on, it is refused then.\n"
        "Plugins are not told, and the recorded status does not change. Not permitted while the status says that\n"
        "work is in progress.\n"
        "Exit status 2: no pack is installed.",
        Remove, AddRemoveOptions},
    Command{"hold", Effect::kChange, "Let no pack be installed until you say so",
            "Nothing is downloaded or installed by itself, and install and update are refused without --despite-hold.\n"
            "Security releases are held for as long as security_wait_days of the settings says, at most.\n"
            "Exit status 2: it was so already.\n"
            "With --json: hold, with until (seconds since the epoch; null without an end).\n"
            "Example: packctl hold --until 2026-12-27",
            HoldUpdates, AddHoldOptions},
    Command{"unhold", Effect::kChange, "End a hold",
            "Exit status 2: updates were not held.\n"
            "With --json: hold, which is null.",
            UnholdUpdates},
    Command{
        "rollback", Effect::kChange, "Go back to the previous pack",
        "Puts the pack back that was installed before the last update, and tells the plugins. The version that goes "
        "is\n"
        "rejected: check and update do not take it again; a newer one they do. Asks first; without a terminal to ask\n"
        "on, it needs --yes. Not permitted while the status says that work is in progress.\n"
        "Exit status 2: there is no previous pack.",
        Rollback, AddRollbackOptions},
    Command{
        "status", Effect::kNone, "Show how things are and what to do",
        "Shows the installed pack, what is available, the last check and what to do, and with --verbose also what is\n"
        "recorded. You may run this at any time, even during an update.\n"
        "With --json: the keys of the status store (sizes in bytes), interrupted (whether an update was cut short),\n"
        "last_check (time in seconds since the epoch, version, is_news, staged and withdrawn, which tell of other\n"
        "releases; null before the first) and support_until\n"
        "(the last day of the maker's support, YYYY-MM-DD; null if none is set).\n"
        "With --watch it prints each change until SIGINT or SIGTERM (Ctrl-C) ends it with exit status 0; with\n"
        "--json one object per line. It sleeps while nothing changes.",
        Status, AddWatchOption},
    Command{"info", Effect::kNone, "Show the installed pack",
            "With --json: installed, package, version, and updated (seconds since the epoch); the last three are null\n"
            "if no pack is installed. The exit status is 0 in that case too.",
            Info},
    Command{"history", Effect::kNone, "Show what was done, when and how it ended",
            "Lists each check, download, install, update, remove and recover that changed something, found a new pack\n"
            "or failed, newest first. The history keeps at most half a mebibyte. A command that was killed leaves no\n"
            "entry, but the recovery after it does. On a terminal a long list is shown in $PAGER, or in less.\n"
            "With --json: the list entries, older, the number of entries beyond --limit, and damaged, the number of\n"
            "unreadable lines. An entry has time (when it ended, in seconds since the epoch), duration_ms, command,\n"
            "from (the pack installed before), to (the pack that is installed or waiting since then), result, status,\n"
            "exit, errors, and error (code, message and remedy of a failure, or null).",
            ShowHistory, AddHistoryOptions},
    Command{"doctor", Effect::kNone, "Look for what is wrong and say what to do about it",
            "Checks the settings, permissions, keyring, plugins, locks, pack, record, update server, clock and free\n"
            "space. It changes nothing, but asks each plugin for its ids and the server for its offer. If the server\n"
            "does not answer, this takes half a minute. Run it as root.\n"
            "Exit status: 0 all is well, 1 something is wrong.\n"
            "With --json: result (well or faults) and the list findings of check, problem and remedy.",
            Doctor},
    Command{"codecs", Effect::kNone, "Show which codecs are installed and which applications ask for",
            "With --json: the lists installed and requested.", Codecs},
    Command{
        "metrics", Effect::kNone, "Print what a monitoring system wants to know",
        "Prints gauges in Prometheus' text format: the installed pack and its codecs, the recorded status, what waits\n"
        "and why, the last check, recent failures by their codes, and the end of support. With --output they go into\n"
        "a file, for node_exporter's textfile collector; orbamira-metrics.timer does that.\n"
        "With --json: the list metrics of name, labels and value.",
        ShowMetrics, AddMetricsOptions},
    Command{"web", Effect::kNone, "Show all of this in a browser, until interrupted",
            "Prints the address of the page, and a link with the token that you need to check and update from there.\n"
            "Runs until SIGINT or SIGTERM (Ctrl-C) ends it with exit status 0; a running update continues.\n"
            "If systemd passes a listening socket (LISTEN_FDS), --listen and --port are ignored.\n"
            "With --json: address and token, which is null with --token-file.",
            Web, AddWebOptions},
    Command{"plugins", Effect::kExclusive, "List the application ids of all plugins",
            "Prints one id per line; with --json: the list app_ids.", Plugins},
    SignInCommand(nullptr),
    SignOutCommand(nullptr),
    AccountStatusCommand(nullptr),
    Command{
        "recover", Effect::kChange, "Clean up after an interrupted update",
        "Brings the previous pack back if the new one is not in place, removes temporary files and folders, and\n"
        "replaces a status of work in progress by its failed form. A service runs it at boot, before anything uses\n"
        "the pack. Run it by hand only while no other program is updating.\n"
        "Exit status: 0 everything is in order, 1 something could not be repaired.",
        RunRecovery},
};

}  // namespace

std::span<const Command> PackctlCommands() { return kCommands; }

}  // namespace orbamira::packctl
