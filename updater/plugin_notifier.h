#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/orba_core_wrapper.h"
#include "updater/enumerations.h"

namespace orbamira::updater {

/// Notifies the plugins of what happens to the pack, and asks them for their application ids. No plugin code is loaded
/// into this process: two programs of the appliance run the plugins. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT IPluginNotifier {
 public:
  virtual ~IPluginNotifier() = default;

  /// Notifies all plugins of one step; blocks until all of them have ended. False, with a line in the log, when the
  /// program that runs them failed, which it also does when a plugin fails. `package` and `version` are passed on as
  /// they are, even when empty. The three enumerations are not checked. Safe to call from several threads at once.
  virtual bool NotifyPlugin(NotifyPluginEvent event, NotifyPluginTiming timing, const std::string& package,
                            const std::string& version, NotifyPluginStatus status) const = 0;

  /// The plugins' application ids, in the order of the answer, with duplicates and empty ones. Empty, with a line in
  /// the log, when there is no answer. Throws Json::Exception when an id in the answer is an array or an object.
  ///
  /// The answer goes through one fixed file, so call it from one thread of one process at a time.
  virtual std::vector<std::string> GetAppId() const = 0;
};

/// The notifier that runs orbamira::path::kNotifyPluginPyPath and orbamira::path::kGetAppIdPyPath.
class ORBAMIRA_EXPORT PluginNotifier : public IPluginNotifier {
 public:
  /// Makes a notifier that runs the programs through the platform's own services; never empty.
  static std::unique_ptr<IPluginNotifier> Create();

  /// Makes a notifier that runs the programs through the given services, which it keeps for its life.
  explicit PluginNotifier(std::shared_ptr<wrapper::IOrbaCoreWrapper> core);

  bool NotifyPlugin(NotifyPluginEvent event, NotifyPluginTiming timing, const std::string& package,
                    const std::string& version, NotifyPluginStatus status) const override;
  std::vector<std::string> GetAppId() const override;

  /// As the operation above, but with the texts, in the order of the program's command line.
  bool NotifyPlugin(const std::string& event, const std::string& package, const std::string& timing,
                    const std::string& version, const std::string& status) const;

 private:
  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
};

}  // namespace orbamira::updater
