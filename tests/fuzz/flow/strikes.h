#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>

namespace orbamira::fuzz::flow {

/// Thrown where the host is killed: unlike a real kill it runs destructors. No exception of the standard library, so
/// that nothing between takes it for a failure.
struct Killed {};

/// What strikes a host, and when: at a program that it runs, at a value that it records, or at a piece of a body.
class Strikes {
 public:
  enum class Kind : uint8_t {
    kNone,
    kKillBefore,
    kKillAfter,
    kProgramKilledBefore,  ///< it does nothing
    kProgramKilledAfter,   ///< it did everything
    kProgramFails,         ///< it does nothing, and says so
    kCount
  };

  /// Strikes at the event of this number, the first of which is 0.
  void Arm(Kind kind, unsigned at) {
    kind_ = kind;
    left_ = at;
  }
  void Disarm() { kind_ = Kind::kNone; }

  /// The next event is a program that does this and returns its result.
  template <typename Action>
  int Program(Action action) {
    switch (Next()) {
      case Kind::kKillBefore:
        throw Killed{};
      case Kind::kKillAfter:
        static_cast<void>(action());
        throw Killed{};
      case Kind::kProgramKilledBefore:
        return -SIGKILL;
      case Kind::kProgramKilledAfter:
        static_cast<void>(action());
        return -SIGKILL;
      case Kind::kProgramFails:
        return 1;
      case Kind::kNone:
      case Kind::kCount:
        break;
    }
    return action();
  }

  /// The next event is something that the host does by itself; it can only be killed there.
  template <typename Action>
  void Own(Action action) {
    const Kind kind = Next();
    if (kind == Kind::kKillBefore) {
      throw Killed{};
    }
    action();
    if (kind == Kind::kKillAfter) {
      throw Killed{};
    }
  }

 private:
  // What strikes now. Strikes once.
  Kind Next() {
    const Kind kind = kind_ != Kind::kNone && left_-- == 0 ? kind_ : Kind::kNone;
    if (kind != Kind::kNone) {
      Disarm();
    }
    return kind;
  }

  Kind kind_ = Kind::kNone;
  unsigned left_ = 0;
};

}  // namespace orbamira::fuzz::flow
