#include "platform/orbazelo.h"

#include <utility>

#include "platform/account/account_file.h"
#include "platform/network/network.h"

namespace orbazelo {
namespace {

using namespace orbamira;  // platform/account and platform/network

std::string GetIdTokenOf(const std::string& client) {
  // The file is only ever replaced whole, so reading a valid token needs no lock.
  ClientTokens tokens = TokensOf(ReadAccount(), client);
  return IsFresh(tokens) ? std::move(tokens.id_token) : LoadNetwork().RenewIdToken(client);
}

}  // namespace

ZeloException::~ZeloException() = default;

User::User() {
  try {
    id_ = TextMember(ReadAccount(), "user_id");
  } catch (const ZeloException&) {
    throw;
  } catch (const std::exception& error) {
    throw ZeloException(error.what());
  }
}

bool User::Exists() const { return !id_.empty(); }

std::string User::GetId() const { return id_; }

// NOLINTNEXTLINE(modernize-pass-by-value): the constructor's type is part of the interface
PackagePkceClient::PackagePkceClient(const std::string& client_name) : client_name_(client_name) {}

std::string PackagePkceClient::GetIdToken() const {
  try {
    return GetIdTokenOf(client_name_);
  } catch (const ZeloException&) {
    throw;
  } catch (const std::exception& error) {
    throw ZeloException(error.what());
  }
}

}  // namespace orbazelo
