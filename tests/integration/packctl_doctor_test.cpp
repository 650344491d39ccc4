// "packctl doctor" on an appliance with one fault at a time.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/reader.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/key_value_store.h"
#include "platform/paths.h"
#include "platform/posix/openssl.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/appliance.h"
#include "tests/support/error_text.h"
#include "tests/support/process.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "tests/support/written_folders.h"
#include "updater/pack_status_helper.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using test::Appliance;
using test::HttpRequest;
using test::HttpResponse;
using test::ProgramResult;
using test::ReadFile;
using test::WriteFile;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

std::string TextOf(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  return {data, static_cast<std::size_t>(length)};
}

Owned<EVP_PKEY, EVP_PKEY_free> MakeKey() { return Owned<EVP_PKEY, EVP_PKEY_free>(EVP_EC_gen("P-256")); }

/// A certificate of its own key in PEM, valid from so many days from now to so many.
std::string Certificate(int from, int to, Owned<EVP_PKEY, EVP_PKEY_free> key = MakeKey()) {
  constexpr long kDay = 24L * 60 * 60;
  const Owned<X509, X509_free> certificate(X509_new());
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), from * kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), to * kDay);
  X509_set_pubkey(certificate.get(), key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("signer"), -1, -1, 0);
  X509_sign(certificate.get(), key.get(), EVP_sha256());
  const Owned<BIO, BIO_free> text(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(text.get(), certificate.get());
  return TextOf(text.get());
}

std::string PrivateKey() {
  const Owned<BIO, BIO_free> text(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(text.get(), MakeKey().get(), nullptr, nullptr, 0, nullptr, nullptr);
  return TextOf(text.get());
}

void WriteKeyring(const std::string& text) {
  WriteFile(path::kKeyring, text);
  fs::permissions(path::kKeyring, fs::perms(0644));
}

void PutFolderAt(const fs::path& file) {
  fs::remove_all(file);
  fs::create_directories(file);
}

void AddSetting(const std::string& line) { WriteFile(path::kPkgSetting, ReadFile(path::kPkgSetting) + line + "\n"); }

void Use(const std::string& address) {
  WriteFile(path::kPkgSetting, std::string(common::kPackUpdateServer) + "=\"" + address + "\"\n");
}

/// Answers the request for the reply with this text.
void Reply(Appliance& appliance, const std::string& text) {
  appliance.SetFault([text](const HttpRequest& request, HttpResponse& response) {
    if (!request.target.ends_with(".opk")) {
      response.body = text;
    }
  });
}

constexpr const char* kDigest = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

std::string Offer(const std::string& version, const std::string& link, const std::string& checksum) {
  return R"({")" ORBAMIRA_HEVC_PACK R"(": {"version": ")" + version + R"(", "link": ")" + link + R"(", "checksum": ")" +
         checksum + "\"}}";
}

class PackctlDoctorTest : public testing::Test {
 protected:
  void SetUp() override {
    appliance_.Publish("1.0", "one");
    ASSERT_EQ(Appliance::Packctl({"update"}).status, 0);
  }

  static Json::Value Diagnose(int expected_status) {
    const ProgramResult result = Appliance::Packctl({"doctor", "--json"});
    EXPECT_EQ(result.status, expected_status) << result.output << result.errors;
    EXPECT_EQ(result.errors, "");
    Json::Value answer;
    std::istringstream(result.output) >> answer;
    return answer;
  }

  Appliance appliance_;
};

TEST_F(PackctlDoctorTest, FindsNothingWhereAllIsWell) {
  WriteKeyring(Certificate(-1, 365) + Certificate(-1, 3650));
  WriteFile(path::kDefaultPkgSetting,
            "# The maker's\n\npack_update_server=\"\"\nplugin_time_limit=\"60\"\nunpack_limit=\"17179869184\"\r\n");
  WriteFile(path::kAccountFile, "{}");
  fs::permissions(path::kAccountFile, fs::perms(0600));
  WriteFile(path::kCodecRequirementsPath, R"({"aac": []})");
  Appliance::AddPlugin("10-player", "echo player\n");
  for (const auto& [name, mode] : {std::pair{"10-plays", 0755}, {".10-plays.swp", 0666}, {"10-plays~", 0666}}) {
    const fs::path file = fs::path(path::kHealthFolder) / name;
    WriteFile(file, "#!/bin/sh\n");
    fs::permissions(file, fs::perms(mode));
  }
  const Json::Value answer = Diagnose(0);
  EXPECT_EQ(answer["command"], "doctor");
  EXPECT_EQ(answer["result"], "well");
  EXPECT_EQ(answer["findings"].size(), 0U);
  EXPECT_EQ(Appliance::Packctl({"doctor"}).output, "No fault was found.\n");
}

TEST_F(PackctlDoctorTest, FindsNothingOnANewMachine) {
  test::RemoveWrittenFolders();
  EXPECT_EQ(Diagnose(0)["result"], "well");
  for (const fs::path& folder : test::WrittenFolders()) {
    EXPECT_FALSE(fs::exists(folder)) << folder;
  }
}

/// Every file and folder below the root with its mode, size and time of change.
std::map<std::string, std::string> Everything() {
  std::map<std::string, std::string> everything;
  for (const auto& entry : fs::recursive_directory_iterator(test::Root())) {
    struct stat about {};
    lstat(entry.path().c_str(), &about);
    everything[entry.path()] = std::to_string(about.st_mode) + " " + std::to_string(about.st_size) + " " +
                               std::to_string(about.st_ctim.tv_sec) + "." + std::to_string(about.st_ctim.tv_nsec);
  }
  return everything;
}

TEST_F(PackctlDoctorTest, ChangesNothing) {
  Appliance::AddPlugin("10-player", "echo player\n");
  WriteFile(path::kPackStatusFile, "{");
  WriteFile(fs::path(path::kBackupPackFolderPath) / "INFO", "version=0.9\n");
  fs::remove_all(fs::path(path::kPackctlLock).parent_path());
  const auto before = Everything();
  test::ProcessOptions options;
  options.folder = "/";
  const test::ProcessResult result = test::RunProgram(Appliance::PackctlCommand({"doctor"}), options);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_EQ(Everything(), before);
}

TEST_F(PackctlDoctorTest, SaysInASentenceWhatIsWrongAndInAnotherWhatToDo) {
  fs::create_directories(path::kTempPackFolderPath);
  const ProgramResult result = Appliance::Packctl({"doctor"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, std::string("state: ") + path::kTempPackFolderPath +
                               " was left behind.\n    if no program is at work on it, run \"packctl recover\".\n");
}

TEST_F(PackctlDoctorTest, NamesTheSettingThatAMisspeltKeyMeans) {
  const auto remedy_of = [](const std::string& key) {
    WriteFile(path::kPkgSetting, key + "=1\n");
    return Diagnose(1)["findings"][0]["remedy"].asString();
  };
  EXPECT_EQ(remedy_of("pack_updat_server"), "write pack_update_server, or remove the line");
  EXPECT_EQ(remedy_of("Plugin_TimeLimit"), "write plugin_time_limit, or remove the line");
  EXPECT_EQ(remedy_of("unpack-limit"), "write unpack_limit, or remove the line");
  EXPECT_EQ(remedy_of("colour"), "remove the line");
}

TEST_F(PackctlDoctorTest, FindsThatTheMakersSupportHasEnded) {
  const auto findings_with = [](const std::string& day, int status) {
    WriteFile(path::kDefaultPkgSetting, "support_until=" + day + "\n");
    return Diagnose(status)["findings"];
  };
  EXPECT_THAT(findings_with("2999-12-31", 0), IsEmpty());
  EXPECT_EQ(findings_with("2020-12-31", 1)[0]["problem"], "the maker's support of this appliance ended on 2020-12-31");
  for (const std::string wrong : {"31.12.2031", "2031-02-29", "2031-12", "203a-12-31", "2031-12-31x", "0000-01-01"}) {
    EXPECT_EQ(findings_with(wrong, 1)[0]["remedy"], "set it to a day, written YYYY-MM-DD") << wrong;
  }
}

TEST_F(PackctlDoctorTest, TextFromOutsideCannotSteerTheTerminal) {
  AddSetting("a\033[2J=1");
  EXPECT_THAT(Appliance::Packctl({"doctor"}).output, AllOf(HasSubstr("a\\033[2J"), testing::Not(HasSubstr("\033"))));
}

TEST_F(PackctlDoctorTest, FindsNothingInTheStateOfAPackctlAtWork) {
  fs::create_directories(path::kTempPackFolderPath);
  updater::PackStatusHelper::Create()->SetAsDownloading();
  const UniqueFd lock(open(path::kPackctlLock, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  EXPECT_EQ(Diagnose(0)["result"], "well");
}

TEST_F(PackctlDoctorTest, FindsAPackctlThatHasBeenAtWorkForHours) {
  const UniqueFd lock(open(path::kPackctlLock, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  const std::time_t yesterday = std::time(nullptr) - 24L * 60 * 60;
  const std::array times = {timespec{.tv_sec = yesterday, .tv_nsec = 0}, timespec{.tv_sec = yesterday, .tv_nsec = 0}};
  ASSERT_EQ(futimens(lock.get(), times.data()), 0);
  const Json::Value findings = Diagnose(1)["findings"];
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0]["check"], "locks");
  EXPECT_EQ(findings[0]["problem"], "a packctl has been at work for over 6 hours");
}

TEST_F(PackctlDoctorTest, KeepsNoUpdateFromTheLockWhileItLooks) {
  WriteFile(path::kPackctlLock, "");
  const UniqueFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  ASSERT_GE(inotify_add_watch(watch.get(), path::kPackctlLock, IN_OPEN), 0);
  Diagnose(0);
  inotify_event event{};
  EXPECT_EQ(read(watch.get(), &event, sizeof event), -1) << "the doctor opened the lock";
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(PackctlDoctorTest, FindsALockThatSomebodyKeeps) {
  const store::FileLock lock(path::kPackStatusLock);
  const Json::Value findings = Diagnose(1)["findings"];
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0]["check"], "locks");
  EXPECT_EQ(findings[0]["problem"],
            std::string("another process keeps ") + path::kPackStatusLock + ", and updates wait for it");
}

TEST_F(PackctlDoctorTest, FindsAServerThatRefuses) {
  const test::RefusingPort port;
  Use(port.Url("/reply.json"));
  const Json::Value findings = Diagnose(1)["findings"];
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0]["check"], "server");
  EXPECT_THAT(findings[0]["problem"].asString(), HasSubstr("the update server does not answer: "));
}

TEST_F(PackctlDoctorTest, ComesToAnEndWithAServerThatIsSilent) {
  appliance_.SetFault([](const HttpRequest& /*request*/, HttpResponse& response) { response.stall_at = 0; });
  const test::ProcessResult result = test::RunProgram({ORBAMIRA_TEST_IMPATIENT_PACKCTL, "doctor"});
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.out, HasSubstr("server: the update server does not answer: "));
}

TEST_F(PackctlDoctorTest, GoesOnWithoutATemporaryFolder) {
  Use("nonsense");
  test::ProcessOptions options;
  options.environment = {"TMPDIR=/proc/self"};  // where nobody can make a folder, root included
  const test::ProcessResult result = test::RunProgram(Appliance::PackctlCommand({"doctor"}), options);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, AllOf(HasSubstr("settings: "), HasSubstr("plugins: the plugins cannot be asked, for want "
                                                                   "of a temporary folder: /proc/self/packctl.")));
}

TEST_F(PackctlDoctorTest, FindsSettingsThatAreIgnoredSinceEveryoneMayWriteThem) {
  fs::permissions(path::kPkgSetting, fs::perms(0666));
  const Json::Value findings = Diagnose(1)["findings"];
  ASSERT_EQ(findings.size(), 2U) << findings.toStyledString();
  EXPECT_EQ(findings[0]["problem"].asString(), "no update server is set");
  EXPECT_EQ(findings[1]["problem"].asString(), std::string(path::kPkgSetting) + ": everyone may write it");
}

TEST_F(PackctlDoctorTest, FindsAFolderThatCannotBeWritten) {
  const fs::path folder = fs::path(path::kPackStatusFile).parent_path();
  fs::permissions(test::Root(), fs::perms(0755));
  fs::permissions(folder, fs::perms(0555));
  test::ProcessOptions options;
  options.before_exec = test::BecomeOrdinaryUser;
  const test::ProcessResult result = test::RunProgram(Appliance::PackctlCommand({"doctor"}), options);
  fs::permissions(folder, fs::perms(0755));
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.out,
              HasSubstr("permissions: " + folder.string() + " cannot be written: " + test::ErrorText(EACCES) + ".\n"));
}

TEST_F(PackctlDoctorTest, SaysFirstOfAllThatItWantsRoot) {
  fs::permissions(test::Root(), fs::perms(0755));
  test::ProcessOptions options;
  options.before_exec = test::BecomeOrdinaryUser;
  const std::string said = test::RunProgram(Appliance::PackctlCommand({"doctor"}), options).out;
  const std::string first =
      "rights: you are not root, so this cannot look at everything.\n    run \"sudo packctl doctor\".\n";
  const bool is_of_another = geteuid() == 0;  // an appliance of the user's own is all his
  EXPECT_EQ(said.starts_with(first), is_of_another) << said;
}

// The download folder is its owner's alone.
TEST_F(PackctlDoctorTest, SaysNothingOfADownloadThatTheUserMayNotSee) {
  updater::PackStatusHelper::Create()->SetAsNeedInstall("2.0", kHevcPack);
  WriteFile(path::kDownloadedOpkPath, "package");
  fs::permissions(test::Root(), fs::perms(0755));
  fs::permissions(kDownloadFolder, fs::perms::none);
  test::ProcessOptions options;
  options.before_exec = test::BecomeOrdinaryUser;
  const test::ProcessResult result = test::RunProgram(Appliance::PackctlCommand({"doctor"}), options);
  fs::permissions(kDownloadFolder, fs::perms(0700));
  EXPECT_THAT(result.out, HasSubstr("permissions: "));
  EXPECT_THAT(result.out, Not(HasSubstr("no package is there")));
  EXPECT_EQ(result.err, "");
}

/// Something that is wrong, alone.
struct Fault {
  const char* name;
  std::function<void(Appliance&)> plant;
  const char* check;
  std::string problem;  // a part of it
};

std::function<void(Appliance&)> OpenToAll(const fs::path& folder) {
  return [folder](Appliance&) {
    fs::create_directories(folder);
    fs::permissions(folder, fs::perms(0777));
  };
}

std::vector<Fault> Faults() {
  const std::string settings = path::kPkgSetting;
  const std::string keyring = path::kKeyring;
  const fs::path plugins = path::kPluginFolder;
  const fs::path judge = fs::path(path::kHealthFolder) / "10-plays";
  const fs::path half_built = fs::path(kTargetFolder) / "." ORBAMIRA_PACK_FOLDER_NAME ".partial.AbCdEf";
  const std::string temporary = std::string(path::kPackStatusFile) + ".AbCdEf";
  return {
      {"SettingsThatCannotBeRead", [](Appliance&) { PutFolderAt(path::kDefaultPkgSetting); }, "settings",
       std::string(path::kDefaultPkgSetting) + " cannot be read: it is not a file"},
      {"ALineThatIsNoSetting", [](Appliance&) { AddSetting("pack_update_server"); }, "settings",
       settings + ": line 2 is not KEY=VALUE"},
      {"AKeyThatNothingReads", [](Appliance&) { AddSetting("colour=x"); }, "settings",
       settings + ": line 2 sets colour, which nothing reads"},
      {"ADownloadLimitThatIsNegative", [](Appliance&) { AddSetting("download_limit=-1"); }, "settings",
       settings + ": download_limit is not a whole number of bytes: -1"},
      {"ACodecThatNoPackProvides",
       [](Appliance&) {
         WriteFile(path::kCodecRequirementsPath,
                   R"({"hevc": ["tv"], "aac": [], "vp9": ["player", 7, "tv"], "av1": 1})");
       },
       "codecs", "no pack provides vp9, which is asked for by player, tv"},
      {"ACodecThatAnUnnamedApplicationAsksFor",
       [](Appliance&) { WriteFile(path::kCodecRequirementsPath, R"({"vp9": {"a": 1}})"); }, "codecs",
       "no pack provides vp9, which is asked for by an application"},
      {"NoServer", [](Appliance&) { Use(""); }, "settings", "no update server is set"},
      {"AServerAddressOfAnotherKind", [](Appliance&) { Use("ftp://packs.example.com/"); }, "settings",
       "the update server's address is none of http or https: ftp://packs.example.com/"},
      {"AServerAddressWithoutHost", [](Appliance&) { Use("https:///reply.json"); }, "settings",
       "the update server's address is none of http or https: https:///reply.json"},
      {"ATimeLimitThatIsNone", [](Appliance&) { AddSetting("plugin_time_limit=0"); }, "settings",
       settings + ": plugin_time_limit is not a number of seconds up to a day: 0"},
      {"AnUnpackLimitWithAUnit", [](Appliance&) { AddSetting("unpack_limit=16G"); }, "settings",
       settings + ": unpack_limit is not a whole number of bytes: 16G"},
      {"NoUniqueValue", [](Appliance&) { fs::remove(common::kDefaultOrbaInfoPath); }, "settings",
       std::string(common::kDefaultOrbaInfoPath) + " gives no " ORBAMIRA_UNIQUE_KEY},
      {"NoPackageVersion", [](Appliance&) { fs::remove(kPackageInfoPath); }, "settings",
       std::string(kPackageInfoPath) + " gives no version"},

      {"AKeyringThatEveryoneMayWrite",
       [](Appliance&) {
         WriteKeyring(Certificate(-1, 365));
         fs::permissions(path::kKeyring, fs::perms(0666));
       },
       "permissions", keyring + ": everyone may write it"},
      {"AFolderOfSettingsThatEveryoneMayWrite", OpenToAll(fs::path(path::kPkgSetting).parent_path()), "permissions",
       fs::path(path::kPkgSetting).parent_path().string() + ": everyone may write it"},
      {"AStateFolderThatEveryoneMayWrite", OpenToAll(fs::path(path::kPackStatusFile).parent_path()), "permissions",
       fs::path(path::kPackStatusFile).parent_path().string() + ": everyone may write it"},
      {"ACacheFolderThatEveryoneMayWrite", OpenToAll(fs::path(kDownloadFolder).parent_path()), "permissions",
       fs::path(kDownloadFolder).parent_path().string() + ": everyone may write it"},
      {"AFolderOfProgramsThatEveryoneMayWrite", OpenToAll(fs::path(path::kCpPath).parent_path()), "permissions",
       fs::path(path::kCpPath).parent_path().string() + ": everyone may write it"},
      {"ParentsOfPluginsThatEveryoneMayWrite", OpenToAll(plugins.parent_path()), "plugins",
       "refused: everyone may write " + plugins.parent_path().string()},
      {"AnAccountThatIsOpenToOthers",
       [](Appliance&) {
         WriteFile(path::kAccountFile, "{}");
         fs::permissions(path::kAccountFile, fs::perms(0640));
       },
       "permissions", std::string(path::kAccountFile) + " is open to others"},
      {"AnAccountThatIsAFolder", [](Appliance&) { PutFolderAt(path::kAccountFile); }, "permissions",
       std::string(path::kAccountFile) + " is not a file"},
      {"AMissingProgram", [](Appliance&) { fs::remove(path::kCpPath); }, "permissions",
       std::string(path::kCpPath) + " is missing or cannot be run"},
      {"AFileInPlaceOfAFolder",
       [](Appliance&) {
         fs::remove_all(kDownloadFolder);
         WriteFile(kDownloadFolder, "");
       },
       "permissions", std::string(kDownloadFolder) + " is not a folder"},
      {"ALockFolderThatEveryoneMayWrite",
       [](Appliance&) { fs::permissions(fs::path(path::kPackctlLock).parent_path(), fs::perms(0777)); }, "permissions",
       fs::path(path::kPackctlLock).parent_path().string() + ": everyone may write it"},
      {"AFolderOfPluginAnswersThatEveryoneMayWrite", OpenToAll(fs::path(path::kTempPluginAppIdPath).parent_path()),
       "permissions", fs::path(path::kTempPluginAppIdPath).parent_path().string() + ": everyone may write it"},
      {"APackThatEveryoneMayWrite", OpenToAll(path::kPackFolderPath), "permissions",
       std::string(path::kPackFolderPath) + ": everyone may write it"},
      {"AFileOfThePageThatEveryoneMayWrite",
       [](Appliance&) {
         fs::permissions(fs::path(path::kDefaultPkgSetting).parent_path() / "web/words.js", fs::perms(0666));
       },
       "permissions",
       (fs::path(path::kDefaultPkgSetting).parent_path() / "web/words.js").string() + ": everyone may write it"},
      {"APageThatEveryoneMayWrite", OpenToAll(fs::path(path::kDefaultPkgSetting).parent_path() / "web"), "permissions",
       (fs::path(path::kDefaultPkgSetting).parent_path() / "web").string() + ": everyone may write it"},
      {"AnAccountProgramThatEveryoneMayWrite",
       [](Appliance&) {
         const fs::path program = fs::path(path::kCpPath).replace_filename("orba-account");
         fs::remove(program);
         WriteFile(program, "");
         fs::permissions(program, fs::perms(0777));
       },
       "permissions", "/orba-account: everyone may write it"},
      {"AHistoryThatEveryoneMayWrite", [](Appliance&) { fs::permissions(path::kHistoryFile, fs::perms(0666)); },
       "permissions", std::string(path::kHistoryFile) + ": everyone may write it"},

      {"AKeyringThatIsEmpty", [](Appliance&) { WriteKeyring(""); }, "keyring", keyring + " holds no certificate"},
      {"AKeyringThatLeadsNowhere", [](Appliance&) { fs::create_symlink("nowhere", path::kKeyring); }, "keyring",
       keyring + " cannot be read, so no package is accepted: it is a link to nowhere"},
      {"AKeyringThatIsDamaged",
       [](Appliance&) { WriteKeyring("-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n"); }, "keyring",
       keyring + " is damaged"},
      {"AKeyringWithAPrivateKey", [](Appliance&) { WriteKeyring(Certificate(-1, 365) + PrivateKey()); }, "keyring",
       keyring + " holds something other than certificates"},
      {"ACertificateThatHasExpired", [](Appliance&) { WriteKeyring(Certificate(-9, -1)); }, "keyring",
       keyring + ": the certificate of CN=signer has expired"},
      {"ACertificateThatExpiresSoon", [](Appliance&) { WriteKeyring(Certificate(-9, 29)); }, "keyring",
       keyring + ": the certificate of CN=signer expires within 30 days"},
      {"ACertificateThatIsNotValidYet", [](Appliance&) { WriteKeyring(Certificate(1, 365)); }, "keyring",
       keyring + ": the certificate of CN=signer is not valid yet"},
      {"ACertificateWithAWeakKey",
       [](Appliance&) {
         constexpr std::size_t kBits = 1024;
         WriteKeyring(Certificate(-1, 365, Owned<EVP_PKEY, EVP_PKEY_free>(EVP_RSA_gen(kBits))));
       },
       "keyring", "CN=signer has a key that is too weak"},

      {"UnsignedPackagesOverHttp",
       [](Appliance& appliance) {
         std::string address = appliance.server().Url("/reply.json");
         Use(address.replace(address.find("127.0.0.1"), 9, "0.0.0.0"));
       },
       "keyring", "packages come over http and unsigned ones are accepted"},

      {"APluginThatIsNotExecutable",
       [plugins](Appliance&) {
         Appliance::AddPlugin("a", "echo player\n");
         fs::permissions(plugins / "a", fs::perms(0644));
       },
       "plugins", (plugins / "a").string() + " is not executable"},
      {"APluginThatEveryoneMayWrite",
       [plugins](Appliance&) {
         Appliance::AddPlugin("a", "echo player\n");
         fs::permissions(plugins / "a", fs::perms(0777));
       },
       "plugins", (plugins / "a").string() + ": refused: everyone may write it"},
      {"APluginFolderThatEveryoneMayWrite",
       [plugins](Appliance&) {
         Appliance::AddPlugin("a", "echo player\n");
         fs::permissions(plugins, fs::perms(0777));
       },
       "plugins", plugins.string() + ": refused: everyone may write it"},
      {"APluginThatFails", [](Appliance&) { Appliance::AddPlugin("a", "exit 3\n"); }, "plugins",
       "a: exited with status 3"},
      {"APluginThatTakesTooLong",
       [](Appliance&) {
         AddSetting("plugin_time_limit=0.2");
         Appliance::AddPlugin("a", "sleep 100\n");
       },
       "plugins", "a: stopped: it took longer than 0.2 s"},

      {"AHealthProgramThatIsNotExecutable",
       [judge](Appliance&) {
         WriteFile(judge, "#!/bin/sh\n");
         fs::permissions(judge, fs::perms(0644));
       },
       "health", judge.string() + " is not executable, so it judges no pack"},
      {"AHealthProgramThatEveryoneMayWrite",
       [judge](Appliance&) {
         WriteFile(judge, "#!/bin/sh\n");
         fs::permissions(judge, fs::perms(0777));
       },
       "permissions", judge.string() + ": everyone may write it"},

      {"AStoreThatIsDamaged", [](Appliance&) { WriteFile(path::kPackStatusFile, "{\"status\": \"lo"); }, "state",
       std::string("the recorded status cannot be read: ") + path::kPackStatusFile + " is damaged"},
      {"AStoreThatIsAFolder", [](Appliance&) { PutFolderAt(path::kPackStatusFile); }, "state",
       std::string("the recorded status cannot be read: ") + path::kPackStatusFile + " is damaged"},
      {"AStatusThatIsNone",
       [](Appliance&) {
         store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kStatus, "dancing");
       },
       "state", std::string("the recorded status cannot be read: ") + path::kPackStatusFile + " is damaged"},
      {"AnInterruptedUpdate", [](Appliance&) { updater::PackStatusHelper::Create()->SetAsDownloadInstalling(1, 2); },
       "state", "the recorded status is downloading_installing, but no packctl is at work"},
      {"AMissingPackage", [](Appliance&) { updater::PackStatusHelper::Create()->SetAsNeedInstall("2.0", "pack"); },
       "state", "the recorded status is need_install, but no package is there"},
      {"AStoreThatWasSetAside", [](Appliance&) { WriteFile(std::string(path::kPackStatusFile) + ".broken", ""); },
       "state", "a damaged status store was set aside"},
      {"APartOfAPack", [](Appliance&) { fs::remove(path::kPackInfoPath); }, "state",
       std::string(path::kPackFolderPath) + " is no whole pack"},
      {"ABackup", [](Appliance&) { fs::create_directories(path::kBackupPackFolderPath); }, "state",
       std::string(path::kBackupPackFolderPath) + " was left behind"},
      {"AHalfBuiltPack", [half_built](Appliance&) { fs::create_directories(half_built); }, "state",
       half_built.string() + " was left behind"},
      {"AHalfWrittenHold", [](Appliance&) { WriteFile(std::string(path::kHoldFile) + ".new", ""); }, "state",
       std::string(path::kHoldFile) + ".new was left behind"},
      {"ATemporaryFile", [temporary](Appliance&) { WriteFile(temporary, ""); }, "state",
       temporary + " was left behind"},
      {"RequirementsThatAreNoObject", [](Appliance&) { WriteFile(path::kCodecRequirementsPath, "[]"); }, "state",
       std::string(path::kCodecRequirementsPath) + " holds no JSON object"},
      {"AHistoryWithDamagedLines", [](Appliance&) { WriteFile(path::kHistoryFile, "{\n{\n"); }, "state",
       "unreadable lines in the history: 2"},
      {"AHistoryThatIsAFolder", [](Appliance&) { PutFolderAt(path::kHistoryFile); }, "state",
       "the history cannot be read: "},

      {"AServerWithoutAReply", [](Appliance&) { fs::remove_all(test::Root() / "srv"); }, "server",
       "the update server answers with status 404"},
      {"AReplyThatIsNoJson", [](Appliance& appliance) { Reply(appliance, "<html>"); }, "server",
       "the update server's reply is not a JSON object"},
      {"AReplyThatIsTooLong", [](Appliance& appliance) { Reply(appliance, std::string(2UL << 20, ' ')); }, "server",
       "the update server's reply is too long"},
      {"AReplyWithoutThePack", [](Appliance& appliance) { Reply(appliance, "{}"); }, "server",
       "the update server offers no pack called " ORBAMIRA_HEVC_PACK},
      {"AReplyWithoutThePackWithAac",
       [](Appliance&) { WriteFile(path::kCodecRequirementsPath, R"({"aac": ["player"]})"); }, "server",
       "the update server offers no pack called " ORBAMIRA_HEVC_AAC_PACK},
      {"AnOfferWithoutVersion",
       [](Appliance& appliance) { Reply(appliance, Offer("", appliance.server().Url("/reply.json"), kDigest)); },
       "server", "the offer of " ORBAMIRA_HEVC_PACK " names no version"},
      {"AnOfferWithoutChecksum",
       [](Appliance& appliance) { Reply(appliance, Offer("2.0", appliance.server().Url("/reply.json"), "abc")); },
       "server", "the offer of " ORBAMIRA_HEVC_PACK " has no SHA-256 or SHA-512 checksum"},
      {"AnOfferWithoutLink", [](Appliance& appliance) { Reply(appliance, Offer("2.0", "/pack.opk", kDigest)); },
       "server", "the offer of " ORBAMIRA_HEVC_PACK " has no http or https link"},
      {"APackageThatIsNotThere",
       [](Appliance& appliance) { Reply(appliance, Offer("2.0", appliance.server().Url("/none.opk"), kDigest)); },
       "server", "/none.opk: status 404"},
      {"AClockThatIsWrong",
       [](Appliance& appliance) {
         appliance.SetFault([](const HttpRequest& /*request*/, HttpResponse& response) {
           response.headers["Date"] = "Thu, 01 Jan 1970 00:00:10 GMT";
         });
       },
       "clock", "the clock differs from the update server's by "},
      {"APackageThatThereIsNoRoomFor",
       [](Appliance& appliance) {
         appliance.SetFault([](const HttpRequest& request, HttpResponse& response) {
           if (request.method == "HEAD") {
             response.claimed_length = std::int64_t{1} << 60;
           }
         });
       },
       "space", "for an update "},
      {"APackageOfWhichOnlyTheReplyTellsTheSize",
       [](Appliance& appliance) {
         const std::string link = appliance.server().Url("/pack.opk");
         appliance.SetFault([link](const HttpRequest& request, HttpResponse& response) {
           response.status = request.method == "HEAD" ? 405 : 200;
           response.body = Offer("2.0", link, kDigest);
           response.body.replace(response.body.find("{\"version\""), 1, R"({"size": 1000000000000000000, )");
         });
       },
       "space", "for an update "},
  };
}

class PackctlDoctorFaultTest : public PackctlDoctorTest, public testing::WithParamInterface<std::size_t> {};

TEST_P(PackctlDoctorFaultTest, IsTheOneFinding) {
  const Fault fault = Faults().at(GetParam());
  fault.plant(appliance_);
  const Json::Value answer = Diagnose(1);
  EXPECT_EQ(answer["result"], "faults");
  const Json::Value& findings = answer["findings"];
  ASSERT_EQ(findings.size(), 1U) << findings.toStyledString();
  EXPECT_EQ(findings[0]["check"], fault.check);
  EXPECT_THAT(findings[0]["problem"].asString(), HasSubstr(fault.problem));
  EXPECT_THAT(findings[0]["remedy"].asString(), testing::Not(IsEmpty()));
}

std::string NameOf(const testing::TestParamInfo<std::size_t>& fault) { return Faults().at(fault.param).name; }

INSTANTIATE_TEST_SUITE_P(Faults, PackctlDoctorFaultTest, testing::Range(std::size_t{0}, Faults().size()), NameOf);

}  // namespace
}  // namespace orbamira
