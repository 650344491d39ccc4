#include "updater/oa_helper.h"

#include "platform/constants.h"
#include "platform/log.h"
#include "platform/orbazelo.h"

namespace orbamira::updater {

std::unique_ptr<IOAHelper> OAHelper::Create() { return std::make_unique<OAHelper>(); }

std::string OAHelper::GetIdToken() const {
  try {
    return orbazelo::PackagePkceClient(std::string(kPkceClientName)).GetIdToken();
  } catch (const orbazelo::ZeloException& error) {
    ORBAMIRA_LOG_ERROR("Failed to get Orbanet account id token: %s", error.what());
  } catch (...) {
    ORBAMIRA_LOG_ERROR("Failed to get Orbanet account id token with unknown error.");
  }
  return "";
}

bool OAHelper::IsLoggedIn() const {
  try {
    return orbazelo::User().Exists();
  } catch (const orbazelo::ZeloException& error) {
    ORBAMIRA_LOG_ERROR("Failed to get Orbanet account exists: %s", error.what());
  } catch (...) {
    ORBAMIRA_LOG_ERROR("Failed to get Orbanet account exists with unknown error.");
  }
  return false;
}

}  // namespace orbamira::updater
