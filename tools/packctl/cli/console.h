#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

/// What packctl says to its user, and what it keeps from being said in between.
namespace orbamira::packctl {

/// What a text tells, and so its colour on a terminal.
enum class Tone { kPlain, kGood, kWarning, kBad };

/// When texts are coloured: kAuto colours on a terminal that can, unless $NO_COLOR is set to something.
enum class ColorChoice { kAuto, kAlways, kNever };

/// The only way by which packctl speaks to its user.
///
/// From its construction on, whatever else is written to the standard output and error is held back: the library gives
/// its reasons only through the system log, which is asked for a copy on standard error, and its child programs may
/// print. Neither may get into a progress line or into an answer in JSON. The caller shows what was held back once
/// something failed.
class Console {
 public:
  /// Opens the system log under packctl's name. Throws std::system_error when the output cannot be held back.
  Console();

  /// Gives standard output and error back.
  ~Console();

  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// Gives standard output and error back before the end, for a program that takes this one's place.
  void GiveBack() const;

  /// Writes the text to the standard output as it is: whoever puts text from outside into it makes that printable.
  /// False when not all of it could be written.
  bool Print(std::string_view text) const;

  /// Writes "packctl: TEXT" as one line to the standard error; control characters in the text become \ooo.
  void Complain(std::string_view text, Tone tone = Tone::kPlain) const;

  /// Until it is called, kAuto holds.
  void SetColor(ColorChoice color) { color_ = color; }

  /// The text in its colour, for Print(); as it is where there are no colours.
  [[nodiscard]] std::string Painted(std::string_view text, Tone tone) const;

  [[nodiscard]] bool IsTerminal() const;

  /// Whether there is somebody to ask: the standard input and output are a terminal.
  [[nodiscard]] bool CanAsk() const;

  /// Prints the question and waits for a line. Whether that begins with "y" or "Y".
  [[nodiscard]] bool Confirm(std::string_view question) const;

  /// Where Print() writes, to wait for: it reports an error once nobody reads any more.
  [[nodiscard]] int output() const { return output_; }

  /// The terminal's width now; $COLUMNS or 80 where it is not known.
  [[nodiscard]] int Columns() const;

  struct Held {
    std::vector<std::string> log;    ///< the library's messages, without the source's name and line
    std::vector<std::string> other;  ///< what child programs wrote

    /// Why something failed, a sentence each: what programs wrote, what was logged, and `problem`.
    [[nodiscard]] std::vector<std::string> Reasons(const std::string& problem) const;
  };

  /// The lines held back since the last call; of a flood only the first part.
  Held TakeHeld();

  /// The same, which TakeHeld() gives out all the same.
  const Held& LookAtHeld();

  /// Those of plugins alone, and only whole ones: to show them while the work goes on. The log stays held, and so does
  /// what the updater's own programs say, whose names begin with "orba-": it is the reason, should the work fail.
  std::vector<std::string> TakeOther();

 private:
  void Look(bool at_whole_lines);
  [[nodiscard]] bool HasColors(int fd) const;

  ColorChoice color_ = ColorChoice::kAuto;
  int output_;
  int error_;
  int held_;
  off_t taken_ = 0;  // bytes of held_ that were looked at
  Held lines_;       // found there, and not yet given out
};

}  // namespace orbamira::packctl
