#pragma once

#include <memory>
#include <string>

#include "platform/export.h"

namespace orbamira::updater {

/// Whether somebody is signed in to the maker's account service, and the token that proves it. No operation throws; the
/// log says what went wrong. Safe to use from several threads at once. The order of the operations is a binary
/// contract.
class ORBAMIRA_EXPORT IOAHelper {
 public:
  virtual ~IOAHelper() = default;

  /// The identity token of the signed-in account; empty when there is none. Every call reads the account again. Blocks
  /// while the account service renews a token that is about to expire: up to four requests of at most 20 seconds each.
  virtual std::string GetIdToken() const = 0;

  /// Whether somebody is signed in; also false when the account cannot be read.
  virtual bool IsLoggedIn() const = 0;
};

/// The helper that asks the account client of platform/orbazelo.h. An object holds no state.
class ORBAMIRA_EXPORT OAHelper : public IOAHelper {
 public:
  /// Makes a helper; never empty.
  static std::unique_ptr<IOAHelper> Create();

  std::string GetIdToken() const override;
  bool IsLoggedIn() const override;
};

}  // namespace orbamira::updater
