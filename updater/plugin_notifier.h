#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/orba_core_wrapper.h"
#include "updater/enumerations.h"

namespace orbamira::updater {

/// Tells the plugins what happens to the pack and asks them who they are. No plugin code is loaded: two programs of
/// the appliance do the talking. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT IPluginNotifier {
 public:
  virtual ~IPluginNotifier() = default;

  /// Tells all plugins of one step; blocks until they were told. False, with a line in the log, when the notification
  /// program failed. `package` and `version` are handed on as they are, empty ones included. May be called from
  /// several threads at once.
  virtual bool NotifyPlugin(NotifyPluginEvent event, NotifyPluginTiming timing, const std::string& package,
                            const std::string& version, NotifyPluginStatus status) const = 0;

  /// The plugins' application ids in the order listed, duplicates and empty ones included; empty, with a line in the
  /// log, when they cannot be had. An answer that nests arrays or objects throws Json::Exception. Uses one fixed
  /// answer file: call it from one thread and one process at a time.
  virtual std::vector<std::string> GetAppId() const = 0;
};

/// The notifier that runs orbamira::path::kNotifyPluginPyPath and orbamira::path::kGetAppIdPyPath.
class ORBAMIRA_EXPORT PluginNotifier : public IPluginNotifier {
 public:
  /// A notifier over the platform's own core services; never empty.
  static std::unique_ptr<IPluginNotifier> Create();

  /// A notifier that runs the programs through the given services.
  explicit PluginNotifier(std::shared_ptr<wrapper::IOrbaCoreWrapper> core);

  bool NotifyPlugin(NotifyPluginEvent event, NotifyPluginTiming timing, const std::string& package,
                    const std::string& version, NotifyPluginStatus status) const override;
  std::vector<std::string> GetAppId() const override;

  /// As the operation above, with the texts themselves, in the order of the program's command line.
  bool NotifyPlugin(const std::string& event, const std::string& package, const std::string& timing,
                    const std::string& version, const std::string& status) const;

 private:
  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
};

}  // namespace orbamira::updater
