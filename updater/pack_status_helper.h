#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/export.h"
#include "platform/key_value_store.h"
#include "updater/enumerations.h"

namespace orbamira::updater {

/// The recorded state: what the updater is doing, as the status store keeps it.
struct PackStatusData {
  PackStatus status = kStatusLost;       ///< the state
  std::string new_pack_name = {};        ///< name of the pack on offer; empty unless an install waits or failed
  std::string new_version = {};          ///< version of the pack on offer; empty when none is
  std::int64_t download_size_now = 0;    ///< bytes downloaded so far
  std::int64_t download_size_total = 0;  ///< bytes of the whole download
  InstallStep install_step = kStepNone;  ///< the step of the install in progress
};

/// The persistent record of the pack's state. Every change is a named transition, and the rules about which operation a
/// state permits are here too. The order of the operations is a binary contract.
///
/// Queries: GetPackStatus() reads the store. The other queries answer from the last read, and read only when there was
/// none. So call GetPackStatus() first when you need fresh values; a transition does not refresh them.
///
/// Transitions: each writes a whole record and resets the fields that it does not name. The record is on disk when the
/// call returns.
///
/// Queries throw std::out_of_range("_Map_base::at") for a stored text that is unknown, and
/// std::invalid_argument("stoll") or std::out_of_range("stoll") for a stored size that is no number. All operations but
/// the CanDo... rules throw std::system_error when the store or its lock cannot be used, and block while another
/// process holds the lock. Do not use one object from two threads at once.
class ORBAMIRA_EXPORT IPackStatusHelper {
 public:
  virtual ~IPackStatusHelper() = default;

  /// The recorded state, read now.
  virtual PackStatus GetPackStatus() = 0;

  /// The name of the pack on offer; empty unless an install waits or failed.
  virtual std::string GetPackNewName() = 0;

  /// The version of the pack on offer; empty when none is.
  virtual std::string GetPackNewVersion() = 0;

  /// Bytes downloaded and bytes in total, each cut to its low 32 bits: sizes of 2 GiB and more come back wrapped;
  /// ReadStatusRecord() gives them whole. The total is 0 while it is unknown.
  virtual std::pair<std::int32_t, std::int32_t> GetPackDownloadProgress() = 0;

  /// The step of the install in progress; kStepNone outside of an install.
  virtual InstallStep GetInstallProgress() = 0;

  /// Records that a pack of this version is on offer.
  virtual void SetAsNeedDownload(const std::string& new_version) const = 0;

  /// Records that a download begins.
  virtual void SetAsDownloading() const = 0;

  /// Records that the download failed.
  virtual void SetAsDownloadFailed() const = 0;

  /// Records that the pack of this version and name was downloaded and waits to be installed.
  virtual void SetAsNeedInstall(const std::string& new_version, const std::string& new_pack_name) const = 0;

  /// Records that the install of the downloaded pack begins.
  virtual void SetAsInstalling() const = 0;

  /// Records that the install failed; the pack of this version and name still waits.
  virtual void SetAsInstallFailed(const std::string& new_version, const std::string& new_pack_name) const = 0;

  /// Records that a download begins which an install will follow.
  virtual void SetAsDownloadInstalling() const = 0;

  /// Records that this download or its install failed.
  virtual void SetAsDownloadInstallFailed() const = 0;

  /// Records that the pack is installed.
  virtual void SetAsUpToDate() const = 0;

  /// Records the progress of a download, in bytes; a total of 0 is unknown.
  virtual void SetAsDownloading(long download_size_now, long download_size_total) const = 0;

  /// As above, for a download that an install will follow.
  virtual void SetAsDownloadInstalling(long download_size_now, long download_size_total) const = 0;

  /// Records the step that the install has reached.
  virtual void SetAsInstalling(InstallStep step) const = 0;

  /// As above, for an install that follows its download.
  virtual void SetAsDownloadInstalling(InstallStep step) const = 0;

  /// Whether the status permits Download(); false for a number that is no status.
  virtual bool CanDoDownload(PackStatus status) const = 0;

  /// Whether the status permits Install(); false for a number that is no status.
  virtual bool CanDoInstall(PackStatus status) const = 0;

  /// Whether the status permits DownloadAndInstall(); false for a number that is no status.
  virtual bool CanDoDownloadInstall(PackStatus status) const = 0;
};

/// The record in a key-value store. Every save and every read holds the lock orbamira::path::kPackStatusLock, and so
/// does Create().
class ORBAMIRA_EXPORT PackStatusHelper : public IPackStatusHelper {
 public:
  /// Makes a helper for the store in orbamira::path::kPackStatusFile. Empty, with a line in the log, when that file
  /// cannot be used.
  static std::unique_ptr<IPackStatusHelper> Create();

  /// Makes a helper for the given store, which it keeps for its life.
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

  /// Writes the whole record to the store. The queries still answer from the last read. Throws std::length_error, and
  /// leaves the store as it is, when the record is longer than a store may be.
  void SaveStatusData(const PackStatusData& data) const;

  /// Reads the whole record from the store. A missing key gives the default of its field. After an exception the
  /// queries still answer from the read before.
  void RetrieveStatusData();

 private:
  const PackStatusData& Cached();

  std::shared_ptr<PackStatusData> cache_;
  std::shared_ptr<store::IKeyValueStore> store_;
};

}  // namespace orbamira::updater
