#pragma once

#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "platform/key_value_store.h"

namespace orbamira::test {

/// A store in memory, which fails on demand. Holds to the same contract as the real one; one suite checks both.
class FakeKeyValueStore : public store::IKeyValueStore {
 public:
  bool Has(const std::string& key) override {
    ThrowIf(reads_fail_);
    return values_.contains(key);
  }

  std::string Get(const std::string& key) override {
    ThrowIf(reads_fail_);
    const auto found = values_.find(key);
    return found == values_.end() ? "" : found->second;
  }

  void Set(const std::string& key, const std::string& value) override {
    ThrowIf(writes_until_failure_-- == 0);
    writes_.push_back("Set " + key);
    values_[key] = value;
  }

  void Clear() override {
    ThrowIf(writes_until_failure_-- == 0);
    writes_.emplace_back("Clear");
    values_.clear();
  }

  /// Every read from now on throws std::system_error.
  void FailReads() { reads_fail_ = true; }

  /// The write after `count` more throws std::system_error and leaves the store as it was.
  void FailWriteAfter(int count) { writes_until_failure_ = count; }

  [[nodiscard]] const std::map<std::string, std::string>& values() const { return values_; }

  /// What was written, in order: "Clear", "Set <key>".
  [[nodiscard]] const std::vector<std::string>& writes() const { return writes_; }

 private:
  static void ThrowIf(bool failing) {
    if (failing) {
      throw std::system_error(std::make_error_code(std::errc::io_error), "fake store");
    }
  }

  std::map<std::string, std::string> values_;
  std::vector<std::string> writes_;
  bool reads_fail_ = false;
  int writes_until_failure_ = -1;
};

}  // namespace orbamira::test
