// Changes one part of an input at a time, so that what is around it keeps its meaning.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/fuzz/flow/host.h"
#include "tests/fuzz/flow/input.h"
#include "tests/fuzz/flow/strikes.h"
#include "tests/fuzz/flow/world.h"
#include "tests/fuzz/fuzzing.h"
#include "updater/enumerations.h"

extern "C" {
std::size_t LLVMFuzzerMutate(uint8_t* data, std::size_t size, std::size_t max_size);
std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t max_size, unsigned int seed);
std::size_t LLVMFuzzerCustomCrossOver(const uint8_t* one, std::size_t one_size, const uint8_t* other,
                                      std::size_t other_size, uint8_t* out, std::size_t max_size, unsigned int seed);
}

namespace orbamira::fuzz::flow {
namespace {

constexpr std::size_t kMostGrowth = 64;

class Mutator {
 public:
  explicit Mutator(unsigned int seed) : random_(seed) {}

  void Change(Input& input) {
    const auto part = static_cast<Part>(Below(kPartCount));
    switch (Below(8)) {
      case 0:
        input[part].clear();
        break;
      case 1:
        if (Below(4) == 0) {
          Overfill(input[Below(2) == 0 ? Part::kAnswer : Part::kReply]);
        } else {
          input[Part::kStore] = Record();
        }
        break;
      case 2:
      case 3:
        ChangeStep(input[Part::kSteps]);
        break;
      case 4:
        ChangeMember(input[Below(4) == 0 ? Part::kMembers : Part::kPayload]);
        break;
      case 5:
        FlipBit(input[Part::kWorld]);
        break;
      case 6:
        if (Below(2) == 0) {
          Damage(input[Part::kDamage]);
        } else {
          ChangeLines(input[part]);
        }
        break;
      default:
        ChangeBytes(input[part]);
        break;
    }
  }

  // Each part is the one's or the other's; of lists, some lines of either.
  Input Cross(const Input& one, const Input& other) {
    Input crossed;
    for (std::size_t i = 0; i < kPartCount; ++i) {
      const auto part = static_cast<Part>(i);
      crossed[part] = Below(2) == 0 ? one[part] : other[part];
      if ((part == Part::kPayload || part == Part::kMembers) && Below(2) == 0) {
        crossed[part] = one[part] + (one[part].ends_with('\n') ? "" : "\n") + other[part];
        ChangeLines(crossed[part]);
      }
    }
    return crossed;
  }

 private:
  std::size_t Below(std::size_t bound) { return random_() % bound; }

  void ChangeBytes(std::string& part) const {
    const std::size_t size = part.size();
    std::vector<uint8_t> bytes(part.begin(), part.end());
    bytes.resize(size + kMostGrowth);
    bytes.resize(LLVMFuzzerMutate(bytes.data(), size, bytes.size()));
    part.assign(bytes.begin(), bytes.end());
  }

  // What is done, what strikes and when are each a byte of three.
  void ChangeStep(std::string& steps) {
    constexpr std::size_t kSize = 3;
    constexpr std::size_t kMostEvents = 64;
    if (steps.size() < kSize || Below(8) == 0) {
      steps.resize(steps.size() / kSize * kSize + kSize);
    }
    const std::size_t step = Below(steps.size() / kSize) * kSize;
    if (Below(3) == 0) {
      steps[step] = static_cast<char>(Below(static_cast<std::size_t>(Step::kCount)));
    }
    steps[step + 1] = static_cast<char>(Below(static_cast<std::size_t>(Strikes::Kind::kCount)));
    steps[step + 2] = static_cast<char>(Below(kMostEvents));
  }

  // One more changed byte of the package: see package.h.
  void Damage(std::string& damage) {
    constexpr std::size_t kSize = 4;
    for (std::size_t i = 0; i < kSize; ++i) {
      damage += static_cast<char>(Below(256));
    }
  }

  // A list becomes longer than what is read.
  static void Overfill(std::string& text) {
    const std::size_t list = text.find('[');
    text.insert(list == std::string::npos ? 0 : list + 1, "@many");
  }

  // A whole record, whatever else it says.
  std::string Record() {
    static const std::vector<std::string> versions = {"", "0.9", "1.0", "2.0", "3.0"};
    const std::string status = updater::kPackStatusTexts[Below(updater::kPackStatusTexts.size())];
    const std::string step = updater::kInstallStepTexts[Below(updater::kInstallStepTexts.size())];
    return R"({"status":")" + status + R"(","new_pack_name":"orbamira-hevc","new_version":")" +
           versions[Below(versions.size())] +
           R"(","download_size_now":"0","download_size_total":"0","install_step":")" + step + "\"}";
  }

  void FlipBit(std::string& world) {
    world.resize(World::kSize);
    world[Below(World::kSize)] ^= static_cast<char>(1U << Below(8));
  }

  void ChangeMember(std::string& members) {
    static const std::vector<std::string> types = {"0", "1", "2", "5", "6", "x", "L", "S"};
    static const std::vector<std::string> modes = {"0644", "0755", "4755", "0000"};
    static const std::vector<std::string> names = {"lib",      "lib/x", "has_hevc", "INFO",        "package.tgz",
                                                   "MANIFEST", "../x",  "../../x",  "lib/../../x", "x/y/z",
                                                   ".",        "..",    "lib/",     kEscape,       "../../../../../x"};
    static const std::vector<std::string> contents = {"", "text", "version=\"3\""};
    constexpr std::size_t kFields = 5;
    std::vector<std::string> lines = LinesOf(members);
    if (lines.empty() || Below(4) == 0) {
      lines.emplace_back("0\t0644\tx\t\ttext");
    }
    std::string& line = lines[Below(lines.size())];
    std::vector<std::string> fields(kFields);
    for (std::size_t i = 0, at = 0; i < kFields && at <= line.size(); ++i) {
      const std::size_t end = i + 1 < kFields ? std::min(line.find('\t', at), line.size()) : line.size();
      fields[i] = line.substr(at, end - at);
      at = end + 1;
    }
    const std::array choices = {&types, &modes, &names, &names, &contents};
    const std::size_t field = Below(kFields);
    fields[field] = (*choices.at(field))[Below(choices.at(field)->size())];
    line = fields[0];
    for (std::size_t i = 1; i < kFields; ++i) {
      line += "\t" + fields[i];
    }
    members = TextOf(lines);
  }

  static std::string TextOf(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
      text += line + "\n";
    }
    return text;
  }

  void ChangeLines(std::string& part) {
    std::vector<std::string> lines = LinesOf(part);
    if (lines.empty()) {
      return ChangeBytes(part);
    }
    const auto line = lines.begin() + static_cast<std::ptrdiff_t>(Below(lines.size()));
    switch (Below(4)) {
      case 0:
        lines.erase(line);
        break;
      case 1:
        lines.insert(line, lines[Below(lines.size())]);
        break;
      case 2:
        std::swap(*line, lines[Below(lines.size())]);
        break;
      default:
        ChangeBytes(*line);
        break;
    }
    part = TextOf(lines);
  }

  std::minstd_rand random_;
};

std::size_t Store(const Input& input, uint8_t* out, std::size_t max_size) {
  const std::string bytes = input.Bytes();
  const std::size_t size = std::min(bytes.size(), max_size);
  std::memcpy(out, bytes.data(), size);
  return size;
}

}  // namespace
}  // namespace orbamira::fuzz::flow

std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t max_size, unsigned int seed) {
  using namespace orbamira::fuzz;
  flow::Input input(Text(data, size));
  flow::Mutator(seed).Change(input);
  return flow::Store(input, data, max_size);
}

std::size_t LLVMFuzzerCustomCrossOver(const uint8_t* one, std::size_t one_size, const uint8_t* other,
                                      std::size_t other_size, uint8_t* out, std::size_t max_size, unsigned int seed) {
  using namespace orbamira::fuzz;
  const flow::Input crossed =
      flow::Mutator(seed).Cross(flow::Input(Text(one, one_size)), flow::Input(Text(other, other_size)));
  return flow::Store(crossed, out, max_size);
}
