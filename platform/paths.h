#pragma once

// Where the updater's files lie on the appliance, and what its packs are called: the one list of folders, files and
// names. The build reads it too, and makes services, manual pages, Debian packages, mkpack and tests from it. For
// another appliance it defines others here, those of the file that ORBAMIRA_PATHS names; docs/porting.md tells more.
// Not installed.

/// The machine's settings, the account, the keyring, and the token of packctl's page.
#ifndef ORBAMIRA_SETTINGS_FOLDER
#define ORBAMIRA_SETTINGS_FOLDER "/etc/orbamira"
#endif

/// The system's identity and version: files of KEY=VALUE lines that the appliance has.
#ifndef ORBAMIRA_SYSTEM_FILE
#define ORBAMIRA_SYSTEM_FILE ORBAMIRA_SETTINGS_FOLDER "/system.conf"
#endif
#ifndef ORBAMIRA_VERSION_FILE
#define ORBAMIRA_VERSION_FILE ORBAMIRA_SETTINGS_FOLDER "/version.conf"
#endif

/// The keys in these files.
#ifndef ORBAMIRA_UNIQUE_KEY
#define ORBAMIRA_UNIQUE_KEY "unique"
#endif
#ifndef ORBAMIRA_MAJOR_VERSION_KEY
#define ORBAMIRA_MAJOR_VERSION_KEY "major_version"
#endif
#ifndef ORBAMIRA_MINOR_VERSION_KEY
#define ORBAMIRA_MINOR_VERSION_KEY "minor_version"
#endif
#ifndef ORBAMIRA_BUILD_NUMBER_KEY
#define ORBAMIRA_BUILD_NUMBER_KEY "build_number"
#endif

/// The recorded status and the history, on a disk that keeps them.
#ifndef ORBAMIRA_STATE_FOLDER
#define ORBAMIRA_STATE_FOLDER "/var/lib/orbamira"
#endif

/// The installed packs, and beside them what is made of a package before it takes a pack's place.
#ifndef ORBAMIRA_PACKS_FOLDER
#define ORBAMIRA_PACKS_FOLDER ORBAMIRA_STATE_FOLDER "/packages"
#endif

/// The name of the installed pack's folder among them.
#ifndef ORBAMIRA_PACK_FOLDER_NAME
#define ORBAMIRA_PACK_FOLDER_NAME "codec-pack"
#endif

/// The names of the packs in the update server's reply: HEVC alone, and HEVC with AAC.
#ifndef ORBAMIRA_HEVC_PACK
#define ORBAMIRA_HEVC_PACK "orbamira-hevc"
#endif
#ifndef ORBAMIRA_HEVC_AAC_PACK
#define ORBAMIRA_HEVC_AAC_PACK ORBAMIRA_HEVC_PACK "-aac"
#endif

/// This product's own name in what the update server is asked.
#ifndef ORBAMIRA_PACKAGE_ID
#define ORBAMIRA_PACKAGE_ID "orbamira"
#endif

/// Downloads; nothing is lost with them.
#ifndef ORBAMIRA_CACHE_FOLDER
#define ORBAMIRA_CACHE_FOLDER "/var/cache/orbamira"
#endif

/// Locks and the plugins' answer, which no boot outlives.
#ifndef ORBAMIRA_RUN_FOLDER
#define ORBAMIRA_RUN_FOLDER "/run/orbamira"
#endif

/// The programs that the library runs.
#ifndef ORBAMIRA_HELPERS_FOLDER
#define ORBAMIRA_HELPERS_FOLDER "/usr/libexec/orbamira"
#endif

/// The plugins.
#ifndef ORBAMIRA_PLUGINS_FOLDER
#define ORBAMIRA_PLUGINS_FOLDER "/usr/lib/orbamira/plugins"
#endif

/// The programs that judge a pack after it was installed.
#ifndef ORBAMIRA_HEALTH_FOLDER
#define ORBAMIRA_HEALTH_FOLDER "/usr/lib/orbamira/health.d"
#endif

/// The maker's settings, and what packctl shows.
#ifndef ORBAMIRA_DATA_FOLDER
#define ORBAMIRA_DATA_FOLDER "/usr/share/orbamira"
#endif

/// The group whose members may read the recorded status under its lock.
#ifndef ORBAMIRA_GROUP
#define ORBAMIRA_GROUP "orbamira"
#endif
