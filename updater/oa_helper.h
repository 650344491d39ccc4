#pragma once

#include <memory>
#include <string>

#include "platform/export.h"

namespace orbamira::updater {

/// Whether the appliance is signed in to the maker's account service, and the token that proves it. No operation
/// throws; what went wrong is in the log. May be used from several threads at once. The order of the operations is a
/// binary contract.
class ORBAMIRA_EXPORT IOAHelper {
 public:
  virtual ~IOAHelper() = default;

  /// The identity token of the signed-in account, asked for afresh at every call; empty when it cannot be had. May
  /// block for a request to the account service.
  virtual std::string GetIdToken() const = 0;

  /// Whether an account is signed in; false as well when that cannot be found out.
  virtual bool IsLoggedIn() const = 0;
};

/// The helper over the account client. Holds no state.
class ORBAMIRA_EXPORT OAHelper : public IOAHelper {
 public:
  /// Never empty.
  static std::unique_ptr<IOAHelper> Create();

  std::string GetIdToken() const override;
  bool IsLoggedIn() const override;
};

}  // namespace orbamira::updater
