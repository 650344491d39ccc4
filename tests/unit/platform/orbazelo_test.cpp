#include "platform/orbazelo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <barrier>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

#include "platform/account/account_file.h"
#include "platform/account/id_token.h"
#include "platform/constants.h"
#include "tests/support/error_text.h"
#include "tests/support/file_size_limit.h"
#include "tests/support/oidc_provider.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbazelo {
namespace {

namespace fs = std::filesystem;
namespace path = orbamira::path;
using orbamira::AccountRoom;
using orbamira::kTokenLimit;
using orbamira::ReadAccount;
using orbamira::RemoveAccount;
using orbamira::WriteAccount;
using orbamira::test::ErrorText;
using orbamira::test::FileSizeLimit;
using orbamira::test::HttpResponse;
using orbamira::test::OidcProvider;
using orbamira::test::ReadFile;
using orbamira::test::SigningKey;
using orbamira::test::WithFailingCall;
using orbamira::test::WriteFile;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* kClient = "client";
constexpr const char* kOtherUser = "the identity token is for another user than the one who is signed in";

/// The account file while it is written.
std::string Unfinished() { return std::string(path::kAccountFile) + ".new"; }

void WriteAccountText(const std::string& text, mode_t mode = 0600) {
  WriteFile(path::kAccountFile, text);
  ASSERT_EQ(chmod(path::kAccountFile, mode), 0);
}

void StoreAccount(const Json::Value& account) { WriteAccountText(account.toStyledString()); }

template <typename Action>
std::string FailureOf(Action action) {
  try {
    action();
  } catch (const ZeloException& failure) {
    return failure.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return "";
}

std::string AboutFile(const std::string& text) {
  return std::string("the account file ") + path::kAccountFile + " " + text;
}

class UserTest : public testing::Test {
 protected:
  void SetUp() override { fs::remove_all(path::kAccountFile); }

  static std::string Failure() {
    return FailureOf([] { User(); });
  }
};

TEST_F(UserTest, ExistsWhenTheAccountHasAUser) {
  WriteAccountText(R"({"user_id": "4711"})");
  EXPECT_TRUE(User().Exists());
  EXPECT_EQ(User().GetId(), "4711");
}

TEST_F(UserTest, DoesNotExistWithoutAFile) {
  EXPECT_FALSE(User().Exists());
  EXPECT_EQ(User().GetId(), "");
}

TEST_F(UserTest, DoesNotExistWithoutAnId) {
  for (const std::string text : {"{}", R"({"user_id": ""})"}) {
    WriteAccountText(text);
    EXPECT_FALSE(User().Exists()) << text;
  }
}

TEST_F(UserTest, IsAsItWasWhenItWasMade) {
  WriteAccountText(R"({"user_id": "4711"})");
  const User user;
  fs::remove(path::kAccountFile);
  EXPECT_EQ(user.GetId(), "4711");
}

TEST_F(UserTest, RefusesAFileThatIsOpenToOthers) {
  for (const mode_t mode : {0640U, 0620U, 0610U, 0604U, 0602U, 0601U, 0644U, 0777U}) {
    WriteAccountText(R"({"user_id": "4711"})", mode);
    EXPECT_EQ(Failure(), AboutFile("is accessible to users other than its owner; its mode must be 0600"))
        << std::oct << mode;
  }
}

TEST_F(UserTest, TakesAFileThatOnlyItsOwnerReads) {
  WriteAccountText(R"({"user_id": "4711"})", 0400);
  EXPECT_TRUE(User().Exists());
}

TEST_F(UserTest, RefusesAFileOfAnotherUser) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can make one and open it";
  }
  WriteAccountText(R"({"user_id": "4711"})");
  ASSERT_EQ(chown(path::kAccountFile, 4711, 0), 0);
  EXPECT_EQ(Failure(), AboutFile("is not used: it belongs to user 4711"));
}

TEST_F(UserTest, RefusesAMalformedFile) {
  for (const std::string text : {"", "{", "[]", "7", "<html>", "{} x", R"({"user_id": "a", "user_id": "b"})"}) {
    WriteAccountText(text);
    EXPECT_EQ(Failure(), AboutFile("is malformed: it is not a JSON object")) << text;
  }
}

TEST_F(UserTest, RefusesNestingWithoutEnd) {
  WriteAccountText(R"({"user_id": )" + std::string(100'000, '['));
  EXPECT_EQ(Failure(), AboutFile("is malformed: it is not a JSON object"));
}

TEST_F(UserTest, RefusesAnIdThatIsNoText) {
  for (const std::string text : {"7", "null", "[]", "{}", "true"}) {
    WriteAccountText(R"({"user_id": )" + text + "}");
    EXPECT_EQ(Failure(), AboutFile("is malformed: \"user_id\" is not a text")) << text;
  }
}

TEST_F(UserTest, RefusesAFileOfMoreThanAMebibyte) {
  const std::string text = R"({"user_id": "4711"})";
  WriteAccountText(text + std::string(1024 * 1024 - text.size(), ' '));
  EXPECT_TRUE(User().Exists());
  WriteAccountText(text + std::string(1024 * 1024 - text.size() + 1, ' '));
  EXPECT_EQ(Failure(), AboutFile("is over 1048576 bytes"));
}

TEST_F(UserTest, RefusesWhatIsNoFile) {
  fs::create_directories(path::kAccountFile);
  EXPECT_EQ(Failure(), AboutFile("is not a regular file"));
  fs::remove(path::kAccountFile);
  ASSERT_EQ(mkfifo(path::kAccountFile, 0600), 0);
  EXPECT_EQ(Failure(), AboutFile("is not a regular file"));
}

TEST_F(UserTest, ReportsAFileThatCannotBeOpened) {
  fs::create_directories(fs::path(path::kAccountFile).parent_path());
  fs::create_symlink(path::kAccountFile, path::kAccountFile);
  EXPECT_THAT(Failure(), StartsWith(AboutFile("cannot be opened: ")));
}

class PackagePkceClientTest : public testing::Test {
 protected:
  PackagePkceClientTest() {
    fs::remove_all(path::kAccountFile);
    fs::remove_all(path::kAccountLock);
    account_["user_id"] = provider_.user;
    account_["issuer"] = provider_.issuer();
    provider_.token_response["id_token"] = new_token_;
    provider_.token_response["refresh_token"] = "new-refresh";
    SetTokens(Token(-1), "old-refresh");
  }

  [[nodiscard]] std::string Token(std::int64_t seconds) const { return Signed(provider_.Claims(kClient, seconds)); }

  /// A token of the provider's.
  [[nodiscard]] std::string Signed(const Json::Value& claims) const { return SignedBy(provider_.key, claims); }

  [[nodiscard]] static std::string SignedBy(const SigningKey& key, const Json::Value& claims,
                                            const std::string& algorithm = "ES256") {
    Json::Value header;
    header["alg"] = algorithm;
    header["kid"] = "key-1";
    return key.MakeToken(header, claims);
  }

  void SetTokens(const std::string& id_token, const std::string& refresh_token) {
    account_["clients"][kClient]["id_token"] = id_token;
    account_["clients"][kClient]["refresh_token"] = refresh_token;
    StoreAccount(account_);
  }

  static std::string Get() { return PackagePkceClient(kClient).GetIdToken(); }

  // No reason may show a token.
  static std::string Failure() {
    std::string reason = FailureOf([] { Get(); });
    EXPECT_THAT(reason, AllOf(Not(HasSubstr("-refresh")), Not(HasSubstr("eyJ"))));
    return reason;
  }

  // The provider's token is refused, but its refresh token must not be lost.
  void ExpectRefused(const std::string& id_token, const std::string& fault) {
    provider_.token_response["id_token"] = id_token;
    SetTokens(Token(-1), "old-refresh");
    EXPECT_EQ(Failure(), fault);
    EXPECT_EQ(ReadAccount()["clients"][kClient]["id_token"], account_["clients"][kClient]["id_token"]);
    EXPECT_EQ(ReadAccount()["clients"][kClient]["refresh_token"], "new-refresh");
  }

  OidcProvider provider_;
  std::string new_token_ = Token(3600);
  Json::Value account_;
};

TEST_F(PackagePkceClientTest, GetIdTokenReturnsAValidToken) {
  const std::string token = Token(3600);
  SetTokens(token, "old-refresh");
  EXPECT_EQ(Get(), token);
  EXPECT_THAT(provider_.server().Requests(), IsEmpty());
  EXPECT_FALSE(fs::exists(path::kAccountLock));
}

TEST_F(PackagePkceClientTest, GetIdTokenReturnsATokenThatIsValidForMoreThanAMinute) {
  const std::string token = Token(65);  // a few seconds for the test
  SetTokens(token, "old-refresh");
  EXPECT_EQ(Get(), token);
}

TEST_F(PackagePkceClientTest, GetIdTokenRenewsATokenThatIsValidForLessThanAMinute) {
  SetTokens(Token(59), "old-refresh");
  EXPECT_EQ(Get(), new_token_);
}

TEST_F(PackagePkceClientTest, GetIdTokenRenewsAnExpiredToken) {
  EXPECT_EQ(Get(), new_token_);
  EXPECT_EQ(provider_.LastForm(), "grant_type=refresh_token&refresh_token=old-refresh&client_id=client");
}

TEST_F(PackagePkceClientTest, GetIdTokenRenewsATokenThatCannotBeRead) {
  Json::Value claims = provider_.Claims(kClient, 3600);
  claims.removeMember("exp");
  for (const std::string& token : {std::string(), std::string("nonsense"), Signed(claims)}) {
    SetTokens(token, "old-refresh");
    EXPECT_EQ(Get(), new_token_) << token;
  }
}

TEST_F(PackagePkceClientTest, GetIdTokenRenewsATokenThatIsMissing) {
  account_["clients"][kClient].removeMember("id_token");
  StoreAccount(account_);
  EXPECT_EQ(Get(), new_token_);
}

TEST_F(PackagePkceClientTest, GetIdTokenKeepsTheNewTokens) {
  account_["clients"]["other"]["id_token"] = "of another client";
  account_["clients"][kClient]["more"] = "kept";
  account_["more"]["\u00fc"] = 1.5;
  account_["large"] = Json::UInt64{18446744073709551615U};
  StoreAccount(account_);
  EXPECT_EQ(Get(), new_token_);
  Json::Value expected = account_;
  expected["clients"][kClient]["id_token"] = new_token_;
  expected["clients"][kClient]["refresh_token"] = "new-refresh";
  EXPECT_EQ(ReadAccount(), expected);
  EXPECT_EQ(fs::status(path::kAccountFile).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(Get(), new_token_);
  EXPECT_EQ(provider_.TokenRequests(), 1U);
}

TEST_F(PackagePkceClientTest, GetIdTokenKeepsTheRefreshTokenThatWasNotRotated) {
  provider_.token_response.removeMember("refresh_token");
  EXPECT_EQ(Get(), new_token_);
  EXPECT_EQ(ReadAccount()["clients"][kClient]["refresh_token"], "old-refresh");
  EXPECT_EQ(ReadAccount()["clients"][kClient]["id_token"], new_token_);
}

TEST_F(PackagePkceClientTest, GetIdTokenRenewsOnceForManyAtOnce) {
  constexpr int kCallers = 8;
  std::barrier start(kCallers);
  std::array<std::string, kCallers> tokens;
  std::array<std::thread, kCallers> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.at(static_cast<std::size_t>(i)) = std::thread([&, i] {
      start.arrive_and_wait();
      tokens.at(static_cast<std::size_t>(i)) = Get();
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_THAT(tokens, testing::Each(new_token_));
  EXPECT_EQ(provider_.TokenRequests(), 1U);
}

TEST_F(PackagePkceClientTest, GetIdTokenNeedsAnAccount) {
  fs::remove(path::kAccountFile);
  EXPECT_EQ(Failure(), "no account is signed in");
  WriteAccountText("{}");
  EXPECT_EQ(Failure(), "no account is signed in");
}

TEST_F(PackagePkceClientTest, GetIdTokenNeedsTokensOfTheClient) {
  account_["clients"].removeMember(kClient);
  StoreAccount(account_);
  EXPECT_EQ(Failure(), "the account has no tokens for client client");
  account_.removeMember("clients");
  StoreAccount(account_);
  EXPECT_EQ(Failure(), "the account has no tokens for client client");
}

TEST_F(PackagePkceClientTest, GetIdTokenNeedsARefreshTokenToRenew) {
  SetTokens(Token(-1), "");
  EXPECT_EQ(Failure(), "the identity token has expired and there is no refresh token for client client");
}

TEST_F(PackagePkceClientTest, GetIdTokenRefusesAFileThatIsOpenToOthers) {
  ASSERT_EQ(chmod(path::kAccountFile, 0640), 0);
  EXPECT_EQ(Failure(), AboutFile("is accessible to users other than its owner; its mode must be 0600"));
}

TEST_F(PackagePkceClientTest, GetIdTokenRefusesMembersOfAnotherType) {
  Json::Value account = account_;
  account["clients"] = 7;
  StoreAccount(account);
  EXPECT_EQ(Failure(), AboutFile("is malformed: \"clients\" is not an object"));
  account = account_;
  account["clients"][kClient] = "text";
  StoreAccount(account);
  EXPECT_EQ(Failure(), AboutFile("is malformed: \"client\" is not an object"));
  for (const char* const member : {"id_token", "refresh_token", "client_id"}) {
    account = account_;
    account["clients"][kClient][member] = 7;
    StoreAccount(account);
    EXPECT_EQ(Failure(), AboutFile("is malformed: \"" + std::string(member) + "\" is not a text"));
  }
  account = account_;
  account["issuer"] = 7;
  StoreAccount(account);
  EXPECT_EQ(Failure(), AboutFile("is malformed: \"issuer\" is not a text"));
}

TEST_F(PackagePkceClientTest, GetIdTokenRefusesAnIssuerThatIsNotSafe) {
  account_["issuer"] = "http://issuer.example";
  StoreAccount(account_);
  EXPECT_EQ(Failure(), "the issuer is neither https nor on this machine: http://issuer.example");
}

TEST_F(PackagePkceClientTest, GetIdTokenReportsARevokedToken) {
  provider_.token_answer = [] { return HttpResponse{.status = 400, .body = R"({"error":"invalid_grant"})"}; };
  const std::string before = ReadFile(path::kAccountFile);
  EXPECT_EQ(Failure(), "the provider refused to renew the token: status 400, invalid_grant; sign in again");
  EXPECT_EQ(ReadFile(path::kAccountFile), before);
}

TEST_F(PackagePkceClientTest, GetIdTokenTellsAWrongClockFromAnExpiredToken) {
  provider_.clock_offset = -3660;
  ExpectRefused(Token(1800),
                "this machine's clock is 61 minutes ahead of the provider's: set the clock and sign in again");
  provider_.clock_offset = 0;
  ExpectRefused(Token(-60), "the provider's identity token has expired already");
}

TEST_F(PackagePkceClientTest, GetIdTokenRenewsUnderTheNameThatTheProviderKnows) {
  account_["clients"][kClient]["client_id"] = "4711";
  StoreAccount(account_);
  provider_.token_response["id_token"] = Signed(provider_.Claims("4711", 3600));
  EXPECT_EQ(Get(), provider_.token_response["id_token"].asString());
  EXPECT_EQ(provider_.LastForm(), "grant_type=refresh_token&refresh_token=old-refresh&client_id=4711");
  EXPECT_EQ(ReadAccount()["clients"][kClient]["client_id"], "4711");
  ExpectRefused(Token(3600), "the identity token is for another client than 4711");
}

TEST_F(PackagePkceClientTest, GetIdTokenRefusesATokenThatIsMalformed) {
  ExpectRefused("", "the provider gave no well-formed identity token");
  ExpectRefused("nonsense", "the provider gave no well-formed identity token");
}

TEST_F(PackagePkceClientTest, GetIdTokenRefusesATokenOfAnotherIssuer) {
  Json::Value claims = provider_.Claims(kClient, 3600);
  claims["iss"] = "https://other.example";
  ExpectRefused(Signed(claims), "the identity token is from another issuer than " + provider_.issuer());
}

TEST_F(PackagePkceClientTest, GetIdTokenRefusesATokenForAnotherClient) {
  ExpectRefused(Signed(provider_.Claims("other", 3600)), "the identity token is for another client than client");
}

TEST_F(PackagePkceClientTest, GetIdTokenRefusesATokenOfAnotherUser) {
  Json::Value claims = provider_.Claims(kClient, 3600);
  claims["sub"] = "somebody else";
  ExpectRefused(Signed(claims), kOtherUser);
}

// A token without a signature, or with somebody else's, proves nothing.
TEST_F(PackagePkceClientTest, GetIdTokenRefusesATokenThatIsNotSignedByTheProvider) {
  const Json::Value claims = provider_.Claims(kClient, 3600);
  constexpr const char* kNoPublicKey =
      "the identity token is not signed with a public key of the provider's: its algorithm is ";
  Json::Value header;
  header["alg"] = "none";
  ExpectRefused(provider_.key.MakeToken(header, claims) + "AA", std::string(kNoPublicKey) + "none");
  ExpectRefused(SignedBy(provider_.key, claims, "HS256"), std::string(kNoPublicKey) + "HS256");
  ExpectRefused(SignedBy(SigningKey::Ec("key-1"), claims),
                "the identity token's signature is not by the provider's key: it is forged or damaged");
}

TEST_F(PackagePkceClientTest, GetIdTokenKeepsTheNewRefreshTokenWhenTheKeysCannotBeFetched) {
  provider_.keys_answer = [] { return HttpResponse{.status = 500}; };
  ExpectRefused(new_token_, "the provider answered 500 when asked for its keys");
}

TEST_F(PackagePkceClientTest, GetIdTokenTakesOnlyTheNonceOfTheOldToken) {
  Json::Value claims = provider_.Claims(kClient, -1);
  claims["nonce"] = "first";
  SetTokens(Signed(claims), "old-refresh");
  EXPECT_EQ(Get(), new_token_);  // which has none
  SetTokens(Signed(claims), "old-refresh");
  claims["exp"] = claims["exp"].asInt64() + 3600;
  provider_.token_response["id_token"] = Signed(claims);
  EXPECT_EQ(Get(), provider_.token_response["id_token"].asString());
  claims["nonce"] = "another";
  ExpectRefused(Signed(claims), "the identity token is for another sign-in: its nonce does not match");
}

TEST_F(PackagePkceClientTest, GetIdTokenComparesTheUserWithTheAccountWithoutAnOldToken) {
  SetTokens("", "old-refresh");
  EXPECT_EQ(Get(), new_token_);
  account_["user_id"] = "somebody else";
  SetTokens("", "old-refresh");
  EXPECT_EQ(Failure(), kOtherUser);
}

TEST_F(PackagePkceClientTest, GetIdTokenRefusesATokenThatHasExpired) {
  ExpectRefused(Token(-1), "the provider's identity token has expired already");
}

TEST_F(PackagePkceClientTest, GetIdTokenChangesNothingWhenARefusedTokenCameAlone) {
  provider_.token_response = Json::objectValue;
  const std::string before = ReadFile(path::kAccountFile);
  EXPECT_EQ(Failure(), "the provider gave no well-formed identity token");
  EXPECT_EQ(ReadFile(path::kAccountFile), before);
}

// The provider takes a refresh token once: on a full disk the new one could not be kept, and the user would be signed
// out for good.
TEST_F(PackagePkceClientTest, GetIdTokenSpendsNoRefreshTokenOnAFullDisk) {
  const std::string before = ReadFile(path::kAccountFile);
  std::string reason;
  {
    const FileSizeLimit full_disk(before.size());  // has room for the account as it is
    reason = FailureOf([] { Get(); });
  }
  EXPECT_THAT(reason, AllOf(StartsWith("new tokens could not be stored: "), EndsWith(ErrorText(EFBIG))));
  EXPECT_THAT(provider_.server().Requests(), IsEmpty());
  EXPECT_EQ(ReadFile(path::kAccountFile), before);
  EXPECT_FALSE(fs::exists(Unfinished()));
  EXPECT_EQ(Get(), new_token_);
}

// As long as tokens are allowed to be, with characters that the file holds as two.
TEST_F(PackagePkceClientTest, GetIdTokenHasTakenTheRoomForTheLongestTokens) {
  Json::Value claims = provider_.Claims(kClient, 3600);
  claims["more"] = std::string(40'000, 'x');
  provider_.token_response["id_token"] = Signed(claims);
  provider_.token_response["refresh_token"] = std::string(kTokenLimit, '"');
  const FileSizeLimit full_disk(ReadFile(path::kAccountFile).size() + 3 * kTokenLimit + 4096);
  EXPECT_EQ(Get(), provider_.token_response["id_token"].asString());
  EXPECT_EQ(ReadAccount()["clients"][kClient]["refresh_token"], std::string(kTokenLimit, '"'));
  provider_.token_response["refresh_token"] = std::string(kTokenLimit + 1, 'x');
  SetTokens(Token(-1), "old-refresh");
  EXPECT_EQ(Failure(), "the provider's refresh token is malformed or too long");
}

TEST_F(PackagePkceClientTest, GetIdTokenSpendsNoRefreshTokenForAnAccountThatCouldBecomeTooLong) {
  account_["more"] = std::string(1024 * 1024 - 4096, 'x');
  StoreAccount(account_);
  EXPECT_EQ(Failure(), AboutFile("would be over 1048576 bytes"));
  EXPECT_THAT(provider_.server().Requests(), IsEmpty());
}

TEST_F(PackagePkceClientTest, GetIdTokenRemovesWhatAKilledCallLeft) {
  WriteFile(Unfinished(), std::string(1024 * 1024, 'x'));
  EXPECT_EQ(Get(), new_token_);
  EXPECT_FALSE(fs::exists(Unfinished()));
}

class AccountFileTest : public testing::Test {
 protected:
  AccountFileTest() { WriteAccountText(R"({"user_id": "4711"})"); }
};

// What ReadAccount() does not take must not replace what it does.
TEST_F(AccountFileTest, WriteAccountWritesNothingThatReadAccountRefuses) {
  Json::Value account;
  account["user_id"] = "4711";
  account["more"] = "";
  WriteAccount(account);
  account["more"] = std::string(1024 * 1024 - ReadFile(path::kAccountFile).size(), 'x');
  WriteAccount(account);
  EXPECT_EQ(ReadAccount(), account);
  account["more"] = account["more"].asString() + 'x';
  EXPECT_EQ(FailureOf([&] { WriteAccount(account); }), AboutFile("would be over 1048576 bytes"));
  EXPECT_EQ(ReadFile(path::kAccountFile).size(), 1024U * 1024);
}

TEST_F(AccountFileTest, WriteRefusesWhatHasOutgrownItsRoomAndReadAccount) {
  Json::Value account = ReadAccount();
  AccountRoom room(account, 0);
  account["more"] = std::string(1024 * 1024, 'x');
  EXPECT_EQ(FailureOf([&] { room.Write(account); }), AboutFile("would be over 1048576 bytes"));
  EXPECT_EQ(ReadFile(path::kAccountFile), R"({"user_id": "4711"})");
}

TEST_F(AccountFileTest, WriteAccountReportsAFileThatCannotBeReplaced) {
  fs::remove(path::kAccountFile);
  fs::create_directory(path::kAccountFile);
  EXPECT_EQ(FailureOf([] { WriteAccount(Json::objectValue); }),
            std::string("the provider's new tokens could not be stored: cannot replace ") + path::kAccountFile + ": " +
                ErrorText(EISDIR));
  EXPECT_FALSE(fs::exists(Unfinished()));
  fs::remove(path::kAccountFile);
}

TEST_F(AccountFileTest, RemoveAccountRemovesWhatAKilledWriterLeft) {
  WriteFile(Unfinished(), "a token");
  RemoveAccount();
  EXPECT_FALSE(fs::exists(path::kAccountFile));
  EXPECT_FALSE(fs::exists(Unfinished()));
}

TEST_F(AccountFileTest, RemoveAccountSaysThatAnUnfinishedOneStays) {
  fs::create_directory(Unfinished());
  EXPECT_THAT(FailureOf([] { RemoveAccount(); }), HasSubstr(" cannot be removed: "));
  fs::remove(Unfinished());
}

TEST_F(AccountFileTest, RemoveAccountSaysThatTheAccountMayComeBack) {
  WithFailingCall(SYS_fsync, EIO, [] {
    EXPECT_THAT(FailureOf([] { RemoveAccount(); }),
                EndsWith(" is removed, but may come back after a power cut: " + ErrorText(EIO)));
  });
}

TEST_F(AccountFileTest, WriteAccountWritesANameAsAPersonReadsIt) {
  Json::Value account;
  account["name"] = "Jürgen";
  WriteAccount(account);
  EXPECT_THAT(ReadFile(path::kAccountFile), HasSubstr("Jürgen"));
}

TEST_F(PackagePkceClientTest, GetIdTokenReportsALockThatCannotBeHad) {
  fs::create_directories(fs::path(path::kAccountLock).parent_path());
  fs::create_symlink(path::kAccountLock, path::kAccountLock);
  EXPECT_THAT(Failure(), HasSubstr("account.lock"));
}

}  // namespace
}  // namespace orbazelo
