#include "platform/cpr_session.h"

#include <stdexcept>

#include "platform/network/network.h"

namespace orbamira::wrapper {
namespace {

// Most hosts make a session and never use it, so it loads the network module only when it downloads.
class SessionOnUse : public ICprSession {
 public:
  cpr::Response DownloadToFile(std::ofstream& file) override {
    try {
      if (session_ == nullptr) {
        session_ = std::make_unique<CprSession>();
      }
    } catch (const std::runtime_error& error) {
      cpr::Response response;
      response.error.code = cpr::ErrorCode::FAILED_INIT;
      response.error.message = error.what();
      return response;
    }
    session_->SetUrl(url_);
    return session_->DownloadToFile(file);
  }

  void SetUrl(const cpr::Url& url) override { url_ = url; }

 private:
  cpr::Url url_;
  std::unique_ptr<CprSession> session_;
};

}  // namespace

std::shared_ptr<ICprSession> CprSession::Create() { return std::make_shared<SessionOnUse>(); }

CprSession::CprSession() { LoadNetwork().MakeSession(&session_); }

CprSession::~CprSession() { LoadNetwork().DestroySession(session_); }

void CprSession::SetUrl(const cpr::Url& url) { LoadNetwork().SetUrl(session_, url); }

cpr::Response CprSession::DownloadToFile(std::ofstream& file) { return LoadNetwork().DownloadToFile(session_, file); }

}  // namespace orbamira::wrapper
