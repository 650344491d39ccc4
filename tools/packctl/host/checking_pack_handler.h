#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "tools/packctl/policy/offer.h"
#include "tools/packctl/policy/release_choice.h"
#include "tools/packctl/record/answered_check.h"
#include "updater/pack_handler.h"

/// What packctl asks of an offer, and remembers of it.
namespace orbamira::packctl {

/// The library's handler, which also
/// - remembers an offer that it turned down: a check that found nothing new and one that failed both give false, and
///   the user wants to know which it was;
/// - throws std::runtime_error, which fails the flow with one line of the log, for an offer whose version or link is
///   too long or has control characters: it would reach the record, terminals and plugins;
/// - takes the release that this appliance is offered, where the reply has more than one for the pack;
/// - declines an offer of a version that was rejected on this appliance, and throws for it where it is not asked;
/// - takes no more of a package than the offer that its link came from says it has.
class CheckingPackHandler : public updater::PackHandler {
 public:
  using PackHandler::CheckNewVersion;
  using PackHandler::GetDownloadChecksum;
  using PackHandler::GetDownloadLink;
  using PackHandler::GetDownloadVersion;
  using PackHandler::PackHandler;

  bool CheckNewVersion(const Json::Value& info) const override;
  std::string GetDownloadVersion(const Json::Value& info) const override;
  std::string GetDownloadLink(const Json::Value& info) const override;
  std::string GetDownloadChecksum(const Json::Value& info) const override;
  bool DownloadWithProgress(const std::string& link, const std::string& path,
                            std::function<void(long, long)>& progress) override;

  /// Does what DownloadWithProgress() does, with a package file of this machine.
  bool CopyWithProgress(const std::string& file, const std::string& path, std::function<void(long, long)>& progress);

  /// From now on also takes a staged release whose share the appliance is not in: somebody asked for it.
  void TakeStagedReleases();

  /// What the last reply says of releases beside the offer.
  [[nodiscard]] const OtherReleases& other_releases() const { return other_releases_; }

  /// Looks at an offer that is about to be downloaded; throws what speaks against it.
  using Look = std::function<void(const Offer& offer)>;

  /// From now on has this look at each offer whose link is asked for.
  void LookBeforeDownload(Look look) { look_ = std::move(look); }

  /// Whether the last reply says of this version that it was taken back.
  [[nodiscard]] bool HasWithdrawn(const std::string& version) const { return withdrawn_.contains(version); }

  /// From now on also takes rejected versions.
  void AcceptRejected() { accepts_rejected_ = true; }

  /// From now on also takes versions that are older than the installed one.
  void AcceptOlder() { accepts_older_ = true; }

  /// Throws std::runtime_error for such a version, unless they are taken. An offer that names no version is none.
  void RefuseOlder(const std::string& version) const;

  /// The version on offer, checked, and noted as offered.
  [[nodiscard]] std::string OfferedVersion(const Json::Value& info) const;

  /// The version of the last offer that was declined because it is rejected; empty when none was.
  [[nodiscard]] const std::optional<std::string>& rejected_version() const { return rejected_version_; }

  /// The version of the last offer that was asked for its version or its link; empty before one was.
  [[nodiscard]] const std::string& offered_version() const { return offer_.version; }

  /// The same offer, with all that only packctl reads.
  [[nodiscard]] const Offer& offer() const { return offer_; }

  /// The version that the server offered and that is no newer than the installed one; empty when no offer arrived.
  [[nodiscard]] const std::optional<std::string>& declined_version() const { return declined_version_; }

 private:
  /// The release of the pack that this appliance is offered.
  [[nodiscard]] Json::Value Chosen(const Json::Value& info) const;
  [[nodiscard]] bool Rejects(const std::string& version) const;

  mutable std::optional<Audience> audience_;  // read when a reply asks for it
  mutable std::set<std::string> withdrawn_;   // by the last reply
  mutable OtherReleases other_releases_;
  mutable Offer offer_;
  Look look_;
  bool accepts_rejected_ = false;
  bool accepts_older_ = false;
  mutable std::optional<std::string> rejected_version_;
  mutable std::optional<std::string> declined_version_;
  mutable std::map<std::string, std::int64_t> sizes_;  // of packages, by their links
};

}  // namespace orbamira::packctl
