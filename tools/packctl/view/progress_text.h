#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

/// How progress is put into words and bars. Pure functions of their arguments: no clock, no terminal.
namespace orbamira::packctl {

/// A size with a binary unit: "0 B", "1023 B", "1.0 KiB", "68.3 MiB". Negative counts as 0.
std::string FormatBytes(std::int64_t bytes);

/// A rate with a binary unit: "4.2 MiB/s".
std::string FormatRate(double bytes_per_second);

/// A span of time: "0:05", "12:34", "1:02:03"; "over 99 h" beyond that. Negative counts as 0.
std::string FormatDuration(std::chrono::seconds duration);

/// A bar of exactly `width` columns (at least 3), its brackets included: "[===>    ]".
std::string FormatBar(double fraction, int width);

/// How far a download is.
struct DownloadProgress {
  std::int64_t now = 0;             ///< bytes
  std::int64_t total = 0;           ///< bytes; 0 or less while unknown
  std::optional<double> rate = {};  ///< bytes per second; empty while unknown

  /// The part that is done, from 0 to 1; 0 while the total is unknown.
  [[nodiscard]] double Fraction() const;
  [[nodiscard]] int Percent() const;
};

/// How far it is: "2.8 GiB of 3.7 GiB (75 %)"; "512 B" while the total is unknown.
std::string FormatProgress(const DownloadProgress& progress);

/// One line about a download, at most `columns` wide: sizes, bar, percentage, rate and time left, of which a narrower
/// line drops the less important.
std::string FormatDownload(const DownloadProgress& progress, int columns);

/// `text` cut to `columns`.
std::string Shorten(const std::string& text, int columns);

/// The speed of a growing count, smoothed over the last few seconds so that a reader can follow it.
class RateMeter {
 public:
  using Clock = std::chrono::steady_clock;

  /// Tells the count at a time. A count that shrinks starts the measurement anew.
  void Add(std::int64_t bytes, Clock::time_point time);

  /// Bytes per second; empty until the count has grown once.
  [[nodiscard]] std::optional<double> rate() const { return rate_; }

 private:
  struct Sample {
    std::int64_t bytes;
    Clock::time_point time;
  };

  std::optional<Sample> last_;
  std::optional<double> rate_;
};

}  // namespace orbamira::packctl
