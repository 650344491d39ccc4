#include "updater/plugin_notifier.h"

#include <json/json.h>

#include <cstdio>
#include <fstream>
#include <utility>

#include "platform/constants.h"
#include "platform/log.h"
#include "updater/json_text.h"

namespace orbamira::updater {
namespace {

Json::Value ReadAnswer(const char* path) {
  Json::Value answer(Json::arrayValue);
  std::ifstream file(path);
  file.peek();  // fails for a folder, which can be opened but not read
  if (!file.is_open() || file.bad()) {
    ORBAMIRA_LOG_ERROR("Failed to open %s", path);
    return answer;
  }
  if (!Json::Reader().parse(ReadJsonText(file), answer, true)) {
    ORBAMIRA_LOG_ERROR("Failed to parse %s", path);
    return Json::arrayValue;
  }
  if (!answer.isArray()) {
    ORBAMIRA_LOG_INFO("json content is not array");
    return Json::arrayValue;
  }
  return answer;
}

}  // namespace

std::unique_ptr<IPluginNotifier> PluginNotifier::Create() {
  return std::make_unique<PluginNotifier>(std::make_shared<wrapper::OrbaCoreWrapper>());
}

PluginNotifier::PluginNotifier(std::shared_ptr<wrapper::IOrbaCoreWrapper> core) : core_(std::move(core)) {}

bool PluginNotifier::NotifyPlugin(NotifyPluginEvent event, NotifyPluginTiming timing, const std::string& package,
                                  const std::string& version, NotifyPluginStatus status) const {
  return NotifyPlugin(kNotifyPluginEventTexts[static_cast<std::size_t>(event)], package,
                      kNotifyPluginTimingTexts[static_cast<std::size_t>(timing)], version,
                      kNotifyPluginStatusTexts[static_cast<std::size_t>(status)]);
}

bool PluginNotifier::NotifyPlugin(const std::string& event, const std::string& package, const std::string& timing,
                                  const std::string& version, const std::string& status) const {
  const std::vector<std::string> command = {path::kNotifyPluginPyPath,
                                            "--event",
                                            event,
                                            "--package",
                                            package,
                                            "--timing",
                                            timing,
                                            "--version",
                                            version,
                                            "--status",
                                            status};
  if (core_->RunCommand(command) != 0) {
    ORBAMIRA_LOG_INFO("Failed to notify plugin: %s --event %s --package %s --timing %s --version %s --status %s",
                      path::kNotifyPluginPyPath, event.c_str(), package.c_str(), timing.c_str(), version.c_str(),
                      status.c_str());
    return false;
  }
  return true;
}

std::vector<std::string> PluginNotifier::GetAppId() const {
  const char* const answer_path = path::kTempPluginAppIdPath;
  if (core_->RunCommand({path::kGetAppIdPyPath, answer_path}) != 0) {
    ORBAMIRA_LOG_INFO("Failed to get app id from plugins");
    return {};
  }
  std::vector<std::string> ids;
  for (const Json::Value& id : ReadAnswer(answer_path)) {
    ids.push_back(id.asString());
  }
  if (std::remove(answer_path) != 0) {
    ORBAMIRA_LOG_INFO("Failed to remove %s", answer_path);
  }
  return ids;
}

}  // namespace orbamira::updater
