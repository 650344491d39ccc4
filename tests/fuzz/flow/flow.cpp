// Whole flows of a host of the library: the server's reply, the package, the settings, the records, the plugins'
// answers and what strikes the host are all the input's. Whatever they are, nothing is written but in the places that
// the updater has, no pack is lost or mixed, no package is installed that is not what was promised; and then a healthy
// server brings the appliance up to date without a person, and nothing is left over.

#include <json/writer.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/accepted_packages.h"
#include "platform/constants.h"
#include "platform/settings_line.h"
#include "platform/version.h"
#include "tests/fuzz/flow/host.h"
#include "tests/fuzz/flow/input.h"
#include "tests/fuzz/flow/package.h"
#include "tests/fuzz/flow/programs.h"
#include "tests/fuzz/flow/server.h"
#include "tests/fuzz/flow/world.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"
#include "updater/health.h"
#include "updater/recovery.h"
#include "updater/status_record.h"
#include "updater/update_request.h"

namespace orbamira::fuzz::flow {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostSteps = 4;
constexpr int kUnhealthy = 3;  // of a judgement
constexpr const char* kHealthyPayload =
    "0\t0644\thas_hevc\t\t\n"
    "0\t0644\thas_aac\t\t\n"
    "0\t0755\tlib/healthy\t\tcodec\n"
    "2\t0777\tlib/link\thealthy\t\n";
const Tree kHealthyTree = {{"/has_aac", "file "},
                           {"/has_hevc", "file "},
                           {"/lib", "folder"},
                           {"/lib/healthy", "file codec"},
                           {"/lib/link", "link to healthy"}};

std::size_t OpenFiles() {
  const fs::directory_iterator files("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

/// One flow and what must hold of it.
class Flow {
 public:
  explicit Flow(const Input& input)
      : input_(input),
        world_(input[Part::kWorld]),
        package_(Pack(input, world_.signing(), Trusted(), Untrusted())),
        reply_(WithTokens(input[Part::kReply])) {
    Build(input, world_, package_, Trusted());
    for (const char* pack : {path::kPackFolderPath, path::kBackupPackFolderPath, path::kPreviousPackFolderPath}) {
      if (fs::exists(pack)) {
        packs_[InfoOf(pack, param::kVersion)] = TreeAt(pack);
      }
    }
    is_known_ = packs_.contains(VersionOfPackage());
  }

  void Run() {
    CheckPlaces(When::kUnderWay);
    DisturbedDays();
    Recovered();
    HealthyDays();
  }

 private:
  static const Signer& Trusted() {
    static const Signer signer;
    return signer;
  }
  static const Signer& Untrusted() {
    static const Signer signer;
    return signer;
  }

  // "@digest" is the package's, and the first "@many" is more than a text from outside may have. The others stay, or a
  // text could grow without bound.
  [[nodiscard]] std::string WithTokens(const std::string& text) const {
    static const std::string many = [] {
      std::string ids;
      while (ids.size() <= 2UL * 1024 * 1024) {
        ids += "\"many of the same ids which fill an answer\",";
      }
      return ids;
    }();
    const std::string token = "@many";
    std::string expanded = text;
    if (const std::size_t at = text.find(token); at != std::string::npos) {
      expanded.replace(at, token.size(), many);
    }
    return Expanded(expanded, "@digest", package_.digest);
  }

  [[nodiscard]] std::string VersionOfPackage() const { return ReadValue(input_[Part::kInfo], param::kVersion); }

  static std::string ReadValue(const std::string& text, const char* key) {
    for (const std::string& line : LinesOf(text)) {
      if (const auto setting = ParseSettingLine(line); setting && setting->key == key) {
        return std::string(setting->value);
      }
    }
    return "";
  }

  void DisturbedDays() {
    const Answers answers = {.notified = world_.notified(),
                             .health = world_.health(),
                             .is_plain = world_.has_plain_answer(),
                             .ids = WithTokens(input_[Part::kAnswer])};
    const auto body = [this](const std::string& /*link*/) { return package_.bytes; };
    const Server server(reply_, body, input_[Part::kServer], strikes_);
    ByteReader steps(input_[Part::kSteps]);
    for (std::size_t i = 0; i < kMostSteps && !steps.done(); ++i) {
      const auto step = static_cast<Step>(steps.Next() % static_cast<uint8_t>(Step::kCount));
      const auto kind = static_cast<Strikes::Kind>(steps.Next() % static_cast<uint8_t>(Strikes::Kind::kCount));
      const std::string minimum = ReadAcceptedPackages().minimum;
      strikes_.Arm(kind, steps.Next());
      Take(step, answers);
      may_lose_ |= step == Step::kRemove || step == Step::kRollBack;
      Require(!IsNewVersion(ReadAcceptedPackages().minimum, minimum), "what was accepted is never less");
      CheckPlaces(When::kUnderWay);
      CheckPacks();
    }
  }

  void Take(Step step, const Answers& answers) {
    const auto programs = std::make_shared<Programs>(answers, strikes_);
    try {
      Host(programs, strikes_, world_.judges_packages()).Do(step);
    } catch (const Killed&) {
      strikes_.Disarm();
      Host(programs, strikes_, false).Do(Step::kRecover);
    } catch (const std::exception&) {
      // A host may meet one for a text that is of another kind than agreed.
    }
    strikes_.Disarm();
  }

  // A pack that was there is whole wherever it is, and a new one is what it must be.
  void CheckPacks() const {
    for (const char* pack : {path::kPackFolderPath, path::kBackupPackFolderPath, path::kPreviousPackFolderPath}) {
      if (!fs::exists(fs::path(pack) / "INFO")) {
        continue;
      }
      const auto known = packs_.find(InfoOf(pack, param::kVersion));
      if (known != packs_.end() && !is_known_) {
        Require(TreeAt(pack) == known->second, "a pack that was there is whole");
      } else if (known == packs_.end() && !world_.Has(World::kDownload)) {
        CheckNewPack();
      }
    }
  }

  void CheckNewPack() const {
    Require(!world_.Has(World::kKeyring) || world_.signing() == Signing::kTrusted,
            "with a keyring only a signed package is installed");
    std::string reply = reply_;
    std::transform(reply.begin(), reply.end(), reply.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    Require(reply.find(package_.sent_digest) != std::string::npos,
            "only a package of the digest in the reply is installed");
  }

  // What belongs to people and to other programs.
  void MendWhatOthersWrite() const {
    test::WriteFile(path::kPkgSetting, HealthySettings());
    try {
      static_cast<void>(updater::AsksForCodec(input_[Part::kRequirements], kAac));
    } catch (const Json::Exception&) {  // no object, and each check fails until it is one
      fs::remove(path::kCodecRequirementsPath);
    }
  }

  void Recovered() {
    const updater::UpdateLock lock;
    MendWhatOthersWrite();
    const updater::RecoveryReport report = updater::Recover(lock);
    Require(report.failed.empty(), "recovery does all that it has to do");
    Require(updater::FindLeftovers().empty(), "recovery leaves nothing over");
    const updater::PackStatus status = updater::ReadStatusRecord().status;
    Require(!updater::IsUnderWay(status), "after recovery nothing is under way");
    const bool keeps_download = status == updater::kStatusNeedInstall || status == updater::kStatusInstallFailed;
    CheckPlaces(keeps_download ? When::kUnderWay : When::kDone);
    CheckPacks();
    Require(MayBeWithoutPack() || fs::exists(path::kPackInfoPath), "where there was a pack there is one");
    const std::string version = InfoOf(path::kPackFolderPath, param::kVersion);
    Require(version.empty() || !updater::IsRejected(version), "no pack is installed that was rejected");
  }

  // Nobody removed it, or found it unhealthy.
  [[nodiscard]] bool MayBeWithoutPack() const {
    return may_lose_ || is_known_ || world_.health() == kUnhealthy || !input_[Part::kHealth].empty() ||
           input_[Part::kSettings].find(common::kKeepPreviousPack) != std::string::npos ||
           !(world_.Has(World::kPack) || world_.Has(World::kBackup));
  }

  // A maker may give it to a pack.
  static bool IsPlain(const std::string& version) {
    constexpr std::size_t kLongest = 100;
    return version.size() <= kLongest && std::all_of(version.begin(), version.end(), [](unsigned char character) {
             return std::isalnum(character) != 0 || (character != '\0' && std::strchr("._+-", character) != nullptr);
           });
  }

  // Newer than all versions that this appliance knows of, or the installed one. Empty when there is something that
  // no maker gives.
  [[nodiscard]] std::string HealthyVersion() const {
    const std::string installed = InfoOf(path::kPackFolderPath, param::kVersion);
    const AcceptedPackages accepted = ReadAcceptedPackages();
    std::vector<std::string> known = {installed, accepted.minimum};
    for (const updater::RejectedVersion& rejected : updater::RejectedVersions()) {
      known.push_back(rejected.version);
    }
    constexpr std::time_t kLastCertificate = 253402300799;  // ends with the year 9999
    if (!std::all_of(known.begin(), known.end(), IsPlain) || accepted.newest_signature > kLastCertificate) {
      return "";
    }
    const auto older = [](const std::string& one, const std::string& other) { return IsNewVersion(one, other); };
    const std::string newest = *std::max_element(known.begin(), known.end(), older);
    // A package that was downloaded and is not on offer any more waits for a person.
    const bool can_be_same = updater::ReadStatusRecord().status != updater::kStatusNeedInstall && !installed.empty() &&
                             !IsNewVersion(installed, newest);
    return world_.offers_same() && can_be_same ? installed : newest + ".1";
  }

  static Input HealthyInput(const std::string& name, const std::string& version) {
    Input healthy;
    healthy[Part::kInfo] = "package=\"" + name + "\"\nversion=\"" + version + "\"\n";
    healthy[Part::kManifest] =
        "# format: 2\n# product: " + std::string(kPackageId) + "\n# pack: " + name + "\n# version: " + version + "\n";
    healthy[Part::kPayload] = kHealthyPayload;
    return healthy;
  }

  void HealthyDays() {
    constexpr int kDays = 2;
    const std::string newer = HealthyVersion();
    const Tree before = TreeAt(path::kPackFolderPath);
    const std::string version = newer.empty() ? "1" : newer;
    const Signing signing = world_.Has(World::kKeyring) ? Signing::kTrusted : Signing::kNone;
    std::map<std::string, Package> packages;
    Json::Value reply;
    for (const char* name : {kHevcPack, kHevcAacPack}) {
      const std::string link = std::string("http://maker/") + name;
      packages[link] = Pack(HealthyInput(name, version), signing, Trusted(), Untrusted());
      reply[name][param::kVersion] = version;
      reply[name][param::kLink] = link;
      reply[name][param::kChecksum] = packages[link].digest;
    }
    const auto body = [&packages](const std::string& link) { return packages.at(link).bytes; };
    const Server server(Json::writeString(Json::StreamWriterBuilder(), reply), body, "", strikes_);
    const Answers answers;
    for (int day = 0; day < kDays && !IsUpToDate(newer); ++day) {
      Host(std::make_shared<Programs>(answers, strikes_), strikes_, false).Do(Step::kUpdate);
    }
    if (!newer.empty()) {
      CheckUpToDate(newer, before);
    }
  }

  // A pack that is found unhealthy only now goes, and so does the offer of it.
  static bool IsUpToDate(const std::string& version) {
    return updater::IsRejected(version) || (updater::ReadStatusRecord().status == updater::kStatusUpToDate &&
                                            InfoOf(path::kPackFolderPath, param::kVersion) == version);
  }

  static void CheckUpToDate(const std::string& version, const Tree& before) {
    Require(IsUpToDate(version), "a healthy server brings it up to date");
    const Tree installed = TreeAt(path::kPackFolderPath);
    Tree healthy = installed;
    for (const char* name : {"/INFO", "/MANIFEST", "/MANIFEST.sig"}) {
      healthy.erase(name);
    }
    Require(healthy == kHealthyTree || installed == before || updater::IsRejected(version),
            "the installed pack is whole, and nothing else is in it");
    Require(updater::FindLeftovers().empty(), "nothing is left over");
    CheckPlaces(When::kDone);
  }

  const Input& input_;
  World world_;
  Strikes strikes_;
  Package package_;
  std::string reply_;
  std::map<std::string, Tree> packs_;  // that were there, by their versions
  bool is_known_ = false;              // the package has the version of a pack that was there
  bool may_lose_ = false;
};

}  // namespace
}  // namespace orbamira::fuzz::flow

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace orbamira::fuzz;
  static const bool is_warm = [] {  // what is opened once stays open
    const flow::Input healthy;
    flow::Flow(healthy).Run();
    return true;
  }();
  static_cast<void>(is_warm);
  const std::size_t before = flow::OpenFiles();
  {
    const flow::Input input(Text(data, size));
    flow::Flow(input).Run();
  }
  Require(flow::OpenFiles() == before, "every file is closed");
  return 0;
}
