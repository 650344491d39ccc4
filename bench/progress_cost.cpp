// Downloads a file, with the progress recorded in a store that takes its time, and says what the recording cost:
//
//   progress_cost URL FILE MILLISECONDS
//
// FILE takes the body. One save of the record takes so many milliseconds; with a negative number nothing is recorded.
// Prints a JSON object: "wall", seconds for the whole download; "first", "between" and "last", seconds in the first
// save, in the last, and in all others together; "saves"; "longest_gap", seconds between two saves at their most.

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/download_wrapper.h"
#include "platform/key_value_store.h"
#include "updater/pack_status_helper.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr int kSetsPerSave = 6;
constexpr int kHttpOk = 200;

/// Holds the values in memory, as slowly as a disk would.
class SlowStore : public orbamira::store::IKeyValueStore {
 public:
  explicit SlowStore(Seconds save) : delay_(save / kSetsPerSave) {}

  bool Has(const std::string& key) override { return values_.contains(key); }
  std::string Get(const std::string& key) override { return values_[key]; }
  void Set(const std::string& key, const std::string& value) override {
    std::this_thread::sleep_for(delay_);
    values_[key] = value;
  }
  void Clear() override { values_.clear(); }

 private:
  Seconds delay_;
  std::map<std::string, std::string> values_;
};

struct Save {
  Clock::time_point begin;
  Clock::time_point end;

  [[nodiscard]] double Length() const { return Seconds(end - begin).count(); }
};

Json::Value Summary(const std::vector<Save>& saves) {
  Json::Value summary;
  summary["saves"] = static_cast<Json::UInt64>(saves.size());
  summary["first"] = saves.empty() ? 0 : saves.front().Length();
  summary["last"] = saves.size() < 2 ? 0 : saves.back().Length();
  double between = 0;
  double longest_gap = 0;
  for (std::size_t i = 1; i < saves.size(); ++i) {
    between += i + 1 < saves.size() ? saves[i].Length() : 0;
    longest_gap = std::max(longest_gap, Seconds(saves[i].begin - saves[i - 1].begin).count());
  }
  summary["between"] = between;
  summary["longest_gap"] = longest_gap;
  return summary;
}

Json::Value Measure(const std::string& url, const std::string& path, double milliseconds) {
  const orbamira::updater::PackStatusHelper helper(std::make_shared<SlowStore>(Seconds(milliseconds / 1000)));
  std::vector<Save> saves;
  std::function<void(long, long)> progress = [&](long now, long total) {
    const auto begin = Clock::now();
    helper.SetAsDownloading(now, total);
    saves.push_back({begin, Clock::now()});
  };
  const auto download = orbamira::wrapper::DownloadWrapper::Create();
  download->SetUrl(url);
  if (milliseconds >= 0) {
    download->SetProgressCallback(progress);
  }
  std::ofstream file(path, std::ios::binary);
  const auto begin = Clock::now();
  if (download->DownloadToFile(file) != kHttpOk) {
    throw std::runtime_error("the server has no " + url);
  }
  const Seconds wall = Clock::now() - begin;
  Json::Value result = Summary(saves);
  result["wall"] = wall.count();
  return result;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 4) {
    std::cerr << "usage: progress_cost URL FILE MILLISECONDS\n";
    return EXIT_FAILURE;
  }
  std::cout << Measure(argv[1], argv[2], std::stod(argv[3])) << '\n';
  return EXIT_SUCCESS;
} catch (const std::exception& error) {
  std::cerr << "progress_cost: " << error.what() << '\n';
  return EXIT_FAILURE;
}
