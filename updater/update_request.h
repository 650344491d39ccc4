#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"

/// What a check asks the update server: the request's address and parameters, and the pack that it looks for in the
/// reply. PackManager asks with these functions, so a host or a tool that uses them sees the same question. All of them
/// are safe to call from several threads at once, as far as the objects they are given are.
namespace orbamira::updater {

class IKOSHelper;
class IPackManager;

/// The facts that make up one request. Texts stand as the system gives them, unchecked and not encoded.
struct UpdateRequest {
  std::string address = {};          ///< the update server's address, from the settings
  std::string package_version = {};  ///< version of the product's own package
  std::string system_version = {};   ///< version of the operating system
  std::string unique = {};           ///< the machine's unique value
};

/// One parameter of the request's query, not encoded.
struct QueryParameter {
  std::string key;    ///< the parameter's name
  std::string value;  ///< its value; may be any text
};

/// Why a pack is the one to ask for.
enum class PackReason {
  kHevcSuffices = 0,  ///< nobody asks for AAC, and the installed pack has none
  kAacInstalled = 1,  ///< the installed pack has AAC: a machine that has it keeps it
  kAacRequested = 2,  ///< an application asks for AAC, which the installed pack lacks
};

/// The pack that a check looks for.
struct PackChoice {
  bool with_aac = false;                          ///< the pack with HEVC and AAC, not the one with HEVC alone
  PackReason reason = PackReason::kHevcSuffices;  ///< why this one
};

/// Gathers the facts, one call each in the order of the members. Lets exceptions of `facts` pass.
[[nodiscard]] ORBAMIRA_EXPORT UpdateRequest MakeUpdateRequest(const IKOSHelper& facts);

/// Whether no member is empty. A request that is not complete is never sent.
[[nodiscard]] ORBAMIRA_EXPORT bool IsComplete(const UpdateRequest& request);

/// The parameters in the order in which they are sent.
[[nodiscard]] ORBAMIRA_EXPORT std::vector<QueryParameter> QueryOf(const UpdateRequest& request);

/// Chooses between the two packs by what `manager` says of AAC. Lets exceptions of IPackManager::IsAacNeeded() pass.
[[nodiscard]] ORBAMIRA_EXPORT PackChoice ChoosePack(const IPackManager& manager);

/// The pack's name, which is its key in the server's reply.
[[nodiscard]] ORBAMIRA_EXPORT std::string PackName(bool with_aac);

/// Whether the text of the codec-requirements file lists an application that asks for the codec; empty when the text is
/// no JSON. Throws Json::Exception when it holds no object or nests too deep.
[[nodiscard]] ORBAMIRA_EXPORT std::optional<bool> AsksForCodec(const std::string& requirements,
                                                               const std::string& codec);

}  // namespace orbamira::updater
