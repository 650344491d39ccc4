#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/export.h"
#include "platform/key_value_store.h"
#include "updater/enumerations.h"

namespace orbamira::updater {

/// What the updater is doing, as the status store records it.
struct PackStatusData {
  PackStatus status = kStatusLost;       ///< the state
  std::string new_pack_name = {};        ///< name of the pack on offer; empty unless an install waits or failed
  std::string new_version = {};          ///< version of the pack on offer; empty when none is
  std::int64_t download_size_now = 0;    ///< bytes downloaded so far
  std::int64_t download_size_total = 0;  ///< bytes of the whole download
  InstallStep install_step = kStepNone;  ///< the step of the install under way
};

/// The persistent record of the pack's state: every change is a named transition, every rule about which operation a
/// state permits is here. The order of the operations is a binary contract.
///
/// GetPackStatus() reads the store; the other queries answer from what the last read brought, and read only when there
/// was none. A transition does not change what the queries answer: whoever needs fresh values calls GetPackStatus()
/// first. A transition writes a whole record and resets the fields that it does not name.
///
/// Queries throw std::out_of_range("_Map_base::at") for a stored text that is unknown, std::invalid_argument("stoll")
/// or std::out_of_range("stoll") for a stored size that is no number. All operations but the CanDo... rules throw
/// std::system_error when the store or its lock cannot be used. Blocks while another process holds the store's lock.
/// One object is not for use from two threads at once.
class ORBAMIRA_EXPORT IPackStatusHelper {
 public:
  virtual ~IPackStatusHelper() = default;

  /// The recorded state, read now.
  virtual PackStatus GetPackStatus() = 0;

  /// The name of the pack on offer; empty unless an install waits or failed.
  virtual std::string GetPackNewName() = 0;

  /// The version of the pack on offer; empty when none is.
  virtual std::string GetPackNewVersion() = 0;

  /// Bytes downloaded and bytes in total, each cut to its low 32 bits: sizes of 2 GiB and more come back wrapped. The
  /// total may be 0.
  virtual std::pair<std::int32_t, std::int32_t> GetPackDownloadProgress() = 0;

  /// The step of the install under way.
  virtual InstallStep GetInstallProgress() = 0;

  /// A pack of this version is on offer.
  virtual void SetAsNeedDownload(const std::string& new_version) const = 0;

  /// A download begins.
  virtual void SetAsDownloading() const = 0;

  /// The download failed.
  virtual void SetAsDownloadFailed() const = 0;

  /// The pack of this version and name was downloaded and waits to be installed.
  virtual void SetAsNeedInstall(const std::string& new_version, const std::string& new_pack_name) const = 0;

  /// The install of the downloaded pack begins.
  virtual void SetAsInstalling() const = 0;

  /// The install failed; the pack of this version and name still waits.
  virtual void SetAsInstallFailed(const std::string& new_version, const std::string& new_pack_name) const = 0;

  /// A download with an install after it begins.
  virtual void SetAsDownloadInstalling() const = 0;

  /// One of the two failed.
  virtual void SetAsDownloadInstallFailed() const = 0;

  /// The pack is installed.
  virtual void SetAsUpToDate() const = 0;

  /// The download has brought so many bytes of so many in total.
  virtual void SetAsDownloading(long download_size_now, long download_size_total) const = 0;

  /// Likewise, of a download with an install after it.
  virtual void SetAsDownloadInstalling(long download_size_now, long download_size_total) const = 0;

  /// The install has reached this step.
  virtual void SetAsInstalling(InstallStep step) const = 0;

  /// Likewise, of an install after its download.
  virtual void SetAsDownloadInstalling(InstallStep step) const = 0;

  /// Whether the status permits a download; false for a number that is no status.
  virtual bool CanDoDownload(PackStatus status) const = 0;

  /// Whether the status permits an install; false for a number that is no status.
  virtual bool CanDoInstall(PackStatus status) const = 0;

  /// Whether the status permits a download with an install after it; false for a number that is no status.
  virtual bool CanDoDownloadInstall(PackStatus status) const = 0;
};

/// The record in a key-value store; making it, every save and every read holds the lock
/// orbamira::path::kPackStatusLock.
class ORBAMIRA_EXPORT PackStatusHelper : public IPackStatusHelper {
 public:
  /// A helper over the store in orbamira::path::kPackStatusFile; empty, with a line in the log, when that file cannot
  /// be used.
  static std::unique_ptr<IPackStatusHelper> Create();

  /// A helper over the given store, which it shares.
  explicit PackStatusHelper(std::shared_ptr<store::IKeyValueStore> store);

  PackStatus GetPackStatus() override;
  std::string GetPackNewName() override;
  std::string GetPackNewVersion() override;
  std::pair<std::int32_t, std::int32_t> GetPackDownloadProgress() override;
  InstallStep GetInstallProgress() override;
  void SetAsNeedDownload(const std::string& new_version) const override;
  void SetAsDownloading() const override;
  void SetAsDownloadFailed() const override;
  void SetAsNeedInstall(const std::string& new_version, const std::string& new_pack_name) const override;
  void SetAsInstalling() const override;
  void SetAsInstallFailed(const std::string& new_version, const std::string& new_pack_name) const override;
  void SetAsDownloadInstalling() const override;
  void SetAsDownloadInstallFailed() const override;
  void SetAsUpToDate() const override;
  void SetAsDownloading(long download_size_now, long download_size_total) const override;
  void SetAsDownloadInstalling(long download_size_now, long download_size_total) const override;
  void SetAsInstalling(InstallStep step) const override;
  void SetAsDownloadInstalling(InstallStep step) const override;
  bool CanDoDownload(PackStatus status) const override;
  bool CanDoInstall(PackStatus status) const override;
  bool CanDoDownloadInstall(PackStatus status) const override;

  /// Writes the whole record to the store. What the queries answer stays as it was. Throws std::length_error, with the
  /// store as it was, for a record that no store has room for.
  void SaveStatusData(const PackStatusData& data) const;

  /// Reads the whole record from the store; a missing key gives its field's default. On an exception the queries keep
  /// answering from the read before.
  void RetrieveStatusData();

 private:
  const PackStatusData& Cached();

  std::shared_ptr<PackStatusData> cache_;
  std::shared_ptr<store::IKeyValueStore> store_;
};

}  // namespace orbamira::updater
