#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/landlock.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Loads one shared library of a pack in a process of its own, for check-health. It links nothing of ours and contains
// its C++ library: what the library under test lacks must be missing here, too.

namespace {

constexpr const char* kUsage =
    "Usage: orba-load LIBRARY\n"
    "Load a shared library with all that it needs, run its constructors, and print\n"
    "\"loaded\", or else why not. The library runs without rights: it can write no file\n"
    "and start no program.\n";

constexpr id_t kNobody = 65534;

// Files can be read and nothing else, where the kernel knows how. Needs no privilege.
void ForbidChanges() {
  landlock_ruleset_attr rules{};
  rules.handled_access_fs = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1U) - 1;
  rules.handled_access_fs &= ~(LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR);
  const long ruleset = syscall(SYS_landlock_create_ruleset, &rules, sizeof rules, 0U);
  if (ruleset >= 0) {
    syscall(SYS_landlock_restrict_self, ruleset, 0U);
    close(static_cast<int>(ruleset));
  }
}

// Where nobody may read the library, root without its privileges goes on: a folder on the way may be closed.
void LeaveRoot(const char* library) {
  setfsgid(kNobody);
  setfsuid(kNobody);
  const int readable = open(library, O_RDONLY | O_CLOEXEC);
  setfsuid(geteuid());
  setfsgid(getegid());
  if (readable < 0) {
    return;
  }
  close(readable);
  if (setgroups(0, nullptr) == 0 && setresgid(kNobody, kNobody, kNobody) == 0) {
    static_cast<void>(setresuid(kNobody, kNobody, kNobody) == 0);
  }
}

// As far as this process may: a service may change no user, and an old kernel lacks some of it.
void GiveUpRights(const char* library) {
  constexpr rlimit kNone{};
  setrlimit(RLIMIT_CORE, &kNone);
  setrlimit(RLIMIT_FSIZE, &kNone);
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  if (geteuid() == 0) {
    LeaveRoot(library);
  }
  constexpr int kLastCapability = 63;
  for (int capability = 0; capability <= kLastCapability; ++capability) {
    prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
  }
  // Version 3 of the header, and no capability in any of its sets.
  std::array<unsigned, 2> header{0x20080522, 0};
  std::array<unsigned, 6> none{};
  syscall(SYS_capset, header.data(), none.data());
  ForbidChanges();
}

// Best effort: the exit status says the rest.
void Say(const char* text) { static_cast<void>(write(STDOUT_FILENO, text, std::strlen(text)) > 0); }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || argv[1][0] == '-') {
    const bool is_help = argc == 2 && std::strcmp(argv[1], "--help") == 0;
    static_cast<void>(std::fputs(kUsage, is_help ? stdout : stderr));
    return is_help ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  GiveUpRights(argv[1]);
  // Never closed again: what matters is that it comes up.
  if (dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) == nullptr) {
    Say(dlerror());
    _exit(EXIT_FAILURE);
  }
  Say("loaded");
  _exit(EXIT_SUCCESS);
}
