// Every word of the page. To add a language, put a words.LANGUAGE.js with the same names beside this file.

// The name of a pack's version, where there is one.
const version = (pack) => (pack?.version ? `version ${pack.version}` : "the new version");

export const words = {
  language: "en",

  // What page.html holds.
  product: "Codec pack",
  loading: "Asking the appliance …",
  codecs: "Codecs",
  stages: "Steps of the update",
  said: "What was logged",
  more: "More",
  token: "Page token",
  tokenHelp: "“packctl web” prints it when it starts. This window keeps it until you close it.",
  history: "History",
  noHistory: "Nothing has happened yet.",
  diagnosis: "Diagnosis",

  // The states: a word or two for the header and the tab's title.
  states: {
    absent: "Not installed",
    current: "Up to date",
    offered: "Update available",
    downloading: "Downloading",
    installing: "Installing",
    failed: "Failed",
    cancelled: "Cancelled",
    interrupted: "Interrupted",
    offline: "Offline",
  },

  // How it is, in a sentence.
  absent: "No codec pack is installed.",
  current: "The codec pack is up to date.",
  installed: "A codec pack is installed.",
  offered: (offer) => `A new codec pack is available: ${version(offer)}.`,
  downloaded: (offer) => `A new codec pack is ready to install: ${version(offer)}.`,
  downloading: (offer) => `Downloading ${version(offer)} …`,
  installing: (offer) => `Installing ${version(offer)} …`,
  interrupted: "The update was interrupted.",
  offline: (name) => `${name} cannot be reached.`,
  failed: (command) => `The ${{ remove: "removal", recover: "recovery" }[command] ?? command} failed.`,
  cancelled: (command) => `The ${{ remove: "removal" }[command] ?? command} was cancelled.`,
  unreadable: "The record of the last update cannot be read.",

  // And what goes with it.
  checked: (age) => `Last check ${age}.`,
  neverChecked: "Not checked yet.",
  withdrawn: (pack) => `The maker has withdrawn version ${pack.version}; a newer one will replace it.`,
  staged: (release) => `Version ${release.version} is on its way to ${release.rollout} % of the appliances first.`,
  rejected: {
    unhealthy: (rejected) => `Version ${rejected.version} was rejected: it failed its health check.`,
    rolled_back: (rejected) => `Version ${rejected.version} was rejected: somebody went back from it.`,
    other: (rejected) => `Version ${rejected.version} was rejected: ${rejected.reason}.`,
  },
  supported: (day) => `Supported until ${day}.`,
  supportEnded: (day) => `The maker's support ended on ${day}: security holes may stay open.`,
  soon: "It is installed soon.",
  latest: (time) => `Until ${time} at the latest.`,
  recovery: "Recovery brings the old pack back where the new one is not in place, and tidies up.",
  stays: (pack) => (pack === null ? "No codec pack is installed." : `Version ${pack.version} stays installed.`),
  until: (pack) => `Version ${pack.version} stays in use until the new one is in place.`,
  age: (age) => `What you see is from ${age}. Trying again …`,
  refused: (cause) => `Not done. ${cause}`,
  notSent: "This could not be sent. Is the appliance reachable?",
  wrongToken: "This is not the page token.",

  // The picture.
  tile: {
    none: "None",
    unknown: "unknown",
    installed: "Installed",
    since: (date) => `since ${date}`,
    offered: "Available",
    coming: "Coming",
    failed: "Not installed",
  },
  codec: {
    used: (applications) => `for ${applications.join(", ")}`,
    missing: (applications) => (applications.length > 0 ? `missing, for ${applications.join(", ")}` : "missing"),
  },

  // The buttons.
  acts: {
    install: "Install",
    check: "Check",
    update: "Update",
    retry: "Try again",
    recover: "Recover",
    unlock: "Unlock",
    reinstall: "Install again",
    rollback: "Back to the previous version",
    remove: "Remove",
    lock: "Forget the token",
    doctor: "Run diagnosis",
    cancel: "Cancel",
    all: (count) => `Show all ${count}`,
  },
  running: {
    check: "Checking …",
    doctor: "Diagnosing …",
    rollback: "Going back …",
    remove: "Removing …",
    recover: "Recovering …",
  },
  starting: "Starting …",
  confirm: {
    remove: (pack, applications) =>
      `Remove version ${pack.version}? ${
        applications.length > 0
          ? `These applications need its codecs: ${applications.join(", ")}.`
          : "No application needs its codecs."
      }`,
    reinstall: (pack) => `Download and install version ${pack.version} once more?`,
    rollback: (pack, _, previous) =>
      `Go back from version ${pack.version} to version ${previous}? Version ${pack.version} is not installed again then, but a newer one is.`,
  },
  ends: {
    new_pack: "Checked: a new codec pack is available.",
    nothing_new: "Checked: there is nothing new.",
    waits: "The new codec pack waits.",
    downloaded: "Downloaded.",
    rejected: "Checked: the pack on offer was rejected on this appliance.",
    nothing_to_do: "There is nothing to do.",
    no_address: "No update server is set.",
    done: "Done.",
  },
  ended: (exit) => `It ended with status ${exit}.`,

  // Work under way.
  stage: {
    download: "Download",
    aside: "Set the old pack aside",
    unpack: "Put the new pack in place",
    finish: "Tell applications",
  },
  waiting: "Waiting for the server …",
  steps: {
    pre_uninstall: "Telling applications that the old pack goes",
    uninstall: "Moving the old pack aside",
    post_uninstall: "The old pack is out of the way",
    pre_install: "Telling applications that the new pack comes",
    install: "Unpacking the new pack and putting it in place",
    post_install: "The new pack is in place",
  },
  bytes: (now, total) => (total === null ? now : `${now} of ${total}`),
  rate: (size) => `${size}/s`,
  left: (duration) => `${duration} left`,

  // The history.
  done: {
    check: (entry) => `Found ${version(entry.to)}`,
    download: (entry) => `Downloaded ${version(entry.to)}`,
    install: (entry) => `Installed ${version(entry.to)}`,
    update: (entry) => (entry.from === null ? `Installed ${version(entry.to)}` : `Updated to ${version(entry.to)}`),
    rollback: (entry) => `Went back to ${version(entry.to)}`,
    remove: (entry) => `Removed ${version(entry.from)}`,
    hold: () => "Held updates",
    unhold: () => "Ended the hold",
    recover: () => "Recovered",
  },
  waits: "Waiting to be installed",
  nothing: "Checked, nothing new",
  failedTo: {
    check: "Check failed",
    download: "Download failed",
    install: "Install failed",
    update: "Update failed",
    remove: "Removal failed",
    rollback: "Rollback failed",
    recover: "Recovery failed",
  },
  cancelledTo: {
    check: "Check cancelled",
    download: "Download cancelled",
    install: "Install cancelled",
    update: "Update cancelled",
    remove: "Removal cancelled",
    rollback: "Rollback cancelled",
  },
  times: (count) => `${count}×`,
  entry: { before: "Before", after: "After", took: "Took", exit: "Exit status", code: "Reason", at: "Ended" },
  noPack: "no pack",
  day: (date, done, failed) => `${date}: ${done + failed === 0 ? "nothing" : `${done} done, ${failed} failed`}`,
  strip: (days, failed) => `The last ${days} days: ${failed === 0 ? "no failure" : `failures on ${failed} of them`}.`,
  legend: { days: "Last 90 days:", none: "nothing", done: "done", failed: "failed" },

  // The diagnosis.
  notDiagnosed: "Checks settings, permissions, keyring, plugins, update server and free space. Changes nothing.",
  well: (age) => `No fault was found ${age}.`,
  found: (age) => `Found ${age}:`,
  problems: "What could not be read",

  server: (user, isHeld) =>
    `Served by the account ${user} at ${isHeld ? "a port that systemd keeps for it" : "a port that any user could have taken"}.`,

  // Why the server did not do what the page asked for, by the code of the refusal; others are among the reasons.
  refusals: {
    not_installed: "No codec pack is installed.",
    no_previous_pack: "There is no previous pack.",
    locked: "Another program keeps the state locked.",
    wrong_host: "The server does not know the name by which you reached it.",
    other_site: "The request came from another site.",
  },

  // Why something failed, by the code of the reason; with `recover`, a recovery mends it.
  reasons: {
    no_space: { cause: "The disk is full.", remedy: "Make room, then try again." },
    disk_error: { cause: "The disk reports an error.", remedy: "Check the disk, then try again." },
    not_signed: { cause: "The package is not signed.", remedy: "Its publisher has to sign it." },
    bad_signature: {
      cause: "The package's signature is not valid.",
      remedy: "Check the clock. If it is right, the publisher has to repair the package.",
    },
    manifest_too_old: {
      cause: "The package is of an older form than the settings accept.",
      remedy: "Its publisher has to make it anew.",
    },
    manifest_too_new: {
      cause: "The package needs a newer updater.",
      remedy: "Update the appliance's system first.",
    },
    wrong_product: { cause: "The package is for another product.", remedy: "Its publisher has to offer another one." },
    info_mismatch: {
      cause: "The package contradicts its own signature.",
      remedy: "Its publisher has to publish it again.",
    },
    older_version: {
      cause: "The package is older than the installed pack.",
      remedy: "Nothing needs to be done: an older pack is not installed by itself.",
    },
    below_minimum: {
      cause: "The package is older than its publisher permits.",
      remedy: "Nothing needs to be done: such a pack is not installed by itself.",
    },
    package_expired: {
      cause: "The package is out of date.",
      remedy: "Its publisher has to offer a newer one.",
    },
    clock_behind: {
      cause: "The clock is wrong, so the package's signature cannot be checked.",
      remedy: "Set the clock, then try again.",
    },
    keyring_unusable: {
      cause: "The appliance's keyring cannot be used, so no package is accepted.",
      remedy: "Run the diagnosis.",
    },
    bad_package: { cause: "The package is damaged.", remedy: "Its publisher has to publish it again." },
    file_unusable: { cause: "The package's file cannot be read.", remedy: "Check the stick and try again." },
    wrong_pack: { cause: "The package is for another appliance.", remedy: "Get the one for this appliance." },
    not_as_offered: { cause: "The package is not the one on offer.", remedy: "Its publisher has to repair the offer." },
    checksum_mismatch: { cause: "The package is not the one that the server announced.", remedy: "Try again." },
    no_network_module: {
      cause: "The updater's network module is missing or does not fit.",
      remedy: "Install the updater's packages again.",
    },
    server_unreachable: { cause: "The update server cannot be reached.", remedy: "Check the network, then try again." },
    server_refused: { cause: "The update server refuses the request.", remedy: "Run the diagnosis." },
    bad_reply: { cause: "The update server's answer cannot be used.", remedy: "Run the diagnosis." },
    download_failed: { cause: "The package cannot be downloaded.", remedy: "Check the network, then try again." },
    bad_setting: { cause: "A setting cannot be used.", remedy: "Look for problems: a finding names the setting." },
    not_configured: {
      cause: "The address of the update server, or a fact about the appliance, is not set.",
      remedy: "Run the diagnosis.",
    },
    no_pack_offered: { cause: "The update server offers no pack for this appliance.", remedy: "Run the diagnosis." },
    requirements_unreadable: {
      cause: "The list of codecs that applications ask for cannot be read.",
      remedy: "Run the diagnosis.",
    },
    install_failed: { cause: "The pack could not be put in place.", remedy: "Run the diagnosis." },
    unhealthy: {
      cause: "The new pack failed its health check.",
      remedy: "It is not installed again. A newer version is, when it is on offer.",
    },
    rejected: { cause: "This version was rejected on this appliance.", remedy: "Wait for a newer version." },
    withdrawn: { cause: "The maker has withdrawn this version.", remedy: "A newer one is offered later." },
    record_unreadable: { cause: "The record of the status is damaged.", remedy: "Recovery repairs it.", recover: true },
    permission_denied: {
      cause: "This takes more rights than the page's server has.",
      remedy: "Run packctl as root.",
    },
    not_permitted: { cause: "The recorded status does not allow it now.", remedy: "Check first." },
    interrupted: { cause: "An earlier update was interrupted.", remedy: "Recovery puts it in order.", recover: true },
    not_confirmed: { cause: "An application needs a codec of the pack.", remedy: "Confirm the removal." },
    cancelled: { cause: "It was cancelled.", remedy: "Try again." },
    held: { cause: "Updates are held.", remedy: "“packctl unhold” ends that." },
    outside_window: { cause: "It is installed at the time that the settings name.", remedy: "You can install it now." },
    in_use: { cause: "A program uses the installed pack.", remedy: "You can install it now." },
    not_in_rollout: {
      cause: "The maker does not offer it to this appliance yet.",
      remedy: "“packctl update --now” installs it now.",
    },
    waits_for_person: { cause: "The settings leave the install to you.", remedy: "You can install it now." },
    package_refused: {
      cause: "Its package was refused. It is fetched again once the maker changes the offer.",
      remedy: "You can try again now.",
    },
    busy: { cause: "Another program is at work.", remedy: "Try again when it has ended." },
  },
};
