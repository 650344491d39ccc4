#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/export.h"

/// What several processes keep and share.
namespace orbamira::store {

/// What a store's file may have in bytes, names of keys and escapes of JSON included: a Set() beyond it throws.
inline constexpr std::size_t kMaxStoreSize = std::size_t{1} << 20U;

/// A small persistent map of texts. The order of the operations is a binary contract. One object is not for use from
/// two threads at once; several processes share a store by holding a FileLock around what belongs together.
class ORBAMIRA_EXPORT IKeyValueStore {
 public:
  virtual ~IKeyValueStore() = default;

  /// Whether the key is present.
  virtual bool Has(const std::string& key) = 0;

  /// The text of the key; empty when the key is missing.
  virtual std::string Get(const std::string& key) = 0;

  /// Stores or replaces the key. On disk, also after a power cut, when it returns.
  virtual void Set(const std::string& key, const std::string& value) = 0;

  /// Empties the store. Every process sees it empty when it returns; that it outlives a power cut is certain only after
  /// the next Set.
  virtual void Clear() = 0;
};

/// The store as a JSON object of texts in one file, mode 0644. An object that fits into 512 bytes, a sector of the
/// disk, is padded with blanks to that size and written in place; a larger one becomes a new file in place of the old.
/// Neither the end of a process nor a power cut leaves a part of either. Every operation sees what other processes
/// wrote, and with or without the lock one state or the next, never a part. Whoever reads the file by other means takes
/// the lock: without it a read in the very moment of a write may give the beginning of one state and the end of
/// another.
///
/// What stands there but is not a JSON object of texts, cannot be read to its end or is not a file at all (a folder, a
/// pipe) is renamed to "<name>.broken" in place of what was set aside earlier, logged, and an empty store takes its
/// place. A file that is only closed to this user stays. All operations throw std::system_error when the file system
/// refuses them; the file then is as it was, but after a failed flush a power cut may bring the refused value to light.
class ORBAMIRA_EXPORT FileKeyValueStore : public IKeyValueStore {
 public:
  /// The store in the file `path`, which is made with its folder when missing. Empty, with the cause in the log,
  /// when the file cannot be used: it cannot be read or made.
  static std::unique_ptr<IKeyValueStore> Create(const std::string& path);

  ~FileKeyValueStore() override;
  FileKeyValueStore(const FileKeyValueStore&) = delete;
  FileKeyValueStore& operator=(const FileKeyValueStore&) = delete;

  bool Has(const std::string& key) override;
  std::string Get(const std::string& key) override;
  void Set(const std::string& key, const std::string& value) override;
  void Clear() override;

 private:
  class File;

  explicit FileKeyValueStore(std::unique_ptr<File> file);

  std::unique_ptr<File> file_;
};

}  // namespace orbamira::store
