#include "tools/orba-archive/manifest.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "platform/version.h"
#include "tools/orba-archive/sha256.h"

namespace orbamira::tools {
namespace {

constexpr unsigned kNewestFormat = 2;
constexpr size_t kLongestName = 128;

using Facts = std::map<std::string_view, std::string_view>;

[[noreturn]] void ThrowDamaged() { throw std::runtime_error("MANIFEST: damaged"); }

std::string_view TakeLine(std::string_view& text) {
  const size_t end = text.find('\n');
  if (end == std::string_view::npos) {
    ThrowDamaged();
  }
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end + 1);
  return line;
}

Facts TakeFacts(std::string_view& text) {
  constexpr std::string_view kBegin = "# ";
  constexpr std::string_view kSeparator = ": ";
  Facts facts;
  while (text.starts_with('#')) {
    const std::string_view line = TakeLine(text);
    const size_t separator = line.find(kSeparator);
    if (!line.starts_with(kBegin) || separator == std::string_view::npos ||
        !facts
             .emplace(line.substr(kBegin.size(), separator - kBegin.size()), line.substr(separator + kSeparator.size()))
             .second) {
      ThrowDamaged();
    }
  }
  return facts;
}

std::string_view Fact(const Facts& facts, const char* key) {
  const auto fact = facts.find(key);
  return fact == facts.end() ? std::string_view() : fact->second;
}

template <typename Number>
Number ParseNumber(std::string_view text) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    ThrowDamaged();
  }
  return number;
}

// Of a product, pack or version.
std::string NameFact(const Facts& facts, const char* key) {
  const std::string_view name = Fact(facts, key);
  const bool is_plain = std::ranges::all_of(name, [](char sign) {
    return (sign >= '0' && sign <= '9') || (sign >= 'a' && sign <= 'z') || (sign >= 'A' && sign <= 'Z') ||
           std::string_view("._+-").find(sign) != std::string_view::npos;
  });
  if (name.empty() || name.size() > kLongestName || !is_plain) {
    ThrowDamaged();
  }
  return std::string(name);
}

// "2026-11-22"
std::chrono::sys_days ParseDay(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00";
  const bool has_form = std::ranges::equal(
      text, kForm, [](char sign, char form) { return form == '-' ? sign == '-' : sign >= '0' && sign <= '9'; });
  if (!has_form) {
    ThrowDamaged();
  }
  const std::chrono::year_month_day day(std::chrono::year(ParseNumber<int>(text.substr(0, 4))),
                                        std::chrono::month(ParseNumber<unsigned>(text.substr(5, 2))),
                                        std::chrono::day(ParseNumber<unsigned>(text.substr(8, 2))));
  if (!day.ok()) {
    ThrowDamaged();
  }
  return day;
}

void TakeIdentity(std::string_view& text, Manifest& manifest) {
  const Facts facts = TakeFacts(text);
  manifest.format = ParseNumber<unsigned>(Fact(facts, "format"));
  if (manifest.format > kNewestFormat) {
    throw std::runtime_error("MANIFEST: of format " + std::to_string(manifest.format) +
                             ", which this updater does not know");
  }
  if (manifest.format != kNewestFormat) {
    ThrowDamaged();
  }
  manifest.product = NameFact(facts, "product");
  manifest.pack = NameFact(facts, "pack");
  manifest.version = NameFact(facts, "version");
  if (facts.contains("minimum")) {
    manifest.minimum = NameFact(facts, "minimum");
  }
  if (facts.contains("expires")) {
    manifest.expires = ParseDay(Fact(facts, "expires"));
  }
  if (IsNewVersion(manifest.version, manifest.minimum)) {
    throw std::runtime_error("MANIFEST: damaged: its version is older than its own minimum");
  }
}

Digests ParseDigests(std::string_view text) {
  constexpr std::string_view kSeparator = "  ";
  constexpr size_t kNameStart = 2 * Sha256::kSize + kSeparator.size();
  Digests digests;
  while (!text.empty()) {
    const std::string_view line = TakeLine(text);
    if (line.size() <= kNameStart || line.substr(2 * Sha256::kSize, kSeparator.size()) != kSeparator ||
        !digests.emplace(line.substr(kNameStart), line.substr(0, 2 * Sha256::kSize)).second) {
      ThrowDamaged();
    }
  }
  return digests;
}

}  // namespace

Manifest ParseManifest(std::string_view text) {
  Manifest manifest;
  if (text.starts_with('#')) {
    TakeIdentity(text, manifest);
  }
  manifest.digests = ParseDigests(text);
  return manifest;
}

}  // namespace orbamira::tools
