// What the recorded status costs: one save, one read, and saves by many processes at once.
//
// usage: status [--folder DIR] [Google Benchmark's own options]
//        status --saves N
//
// The record lies in a folder of its own below DIR (by default the current one), which should be on a real disk: one
// save waits for the disk again and again. The benchmarks:
//
//   Save/against_plain_writes  one save, and in the same iteration six times write + fsync + rename + fsync of the
//                              folder by bare system calls. "ratio" is the median of the iterations' ratios.
//   Read/unchanged             one read of the record under its lock; the column CPU counts.
//   Read/changed               the same when another process has saved since the last read.
//   Saves/processes:N          saves by N processes at once, which queue for the lock.
//
// With --saves it saves N times in the root of the environment and measures nothing: that is for who counts what the
// device gets.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/constants.h"
#include "updater/pack_status_helper.h"

namespace {

namespace fs = std::filesystem;
using orbamira::updater::IPackStatusHelper;
using orbamira::updater::PackStatusHelper;
using Clock = std::chrono::steady_clock;

constexpr long kSize = 68'000'000;
constexpr int kWritesPerSave = 6;
constexpr int kReadsOfChanged = 200;
constexpr int kSavesPerProcess = 10;

[[noreturn]] void Fail(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

template <typename Action>
double SecondsOf(Action action) {
  const auto begin = Clock::now();
  action();
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

std::string RecordText() {
  std::ifstream file(orbamira::path::kPackStatusFile);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The least that puts a new content in place of a file, surely and at once: system calls and nothing else.
class PlainWriter {
 public:
  PlainWriter(const fs::path& folder, std::string text)
      : path_(folder / "plain.json"),
        temporary_(path_ + ".tmp"),
        text_(std::move(text)),
        folder_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (folder_ < 0) {
      Fail("cannot open the folder");
    }
  }
  PlainWriter(const PlainWriter&) = delete;
  PlainWriter& operator=(const PlainWriter&) = delete;
  ~PlainWriter() { close(folder_); }

  void Write() const {
    const int file = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0 || write(file, text_.data(), text_.size()) != static_cast<ssize_t>(text_.size()) || fsync(file) != 0 ||
        close(file) != 0 || rename(temporary_.c_str(), path_.c_str()) != 0 || fsync(folder_) != 0) {
      Fail("cannot write " + path_);
    }
  }

 private:
  std::string path_;
  std::string temporary_;
  std::string text_;
  int folder_;
};

void Save(benchmark::State& state) {
  const auto helper = PackStatusHelper::Create();
  helper->SetAsDownloadInstalling(kSize, kSize);
  const PlainWriter plain(fs::path(orbamira::path::kPackStatusFile).parent_path(), RecordText());
  std::vector<double> saves;
  std::vector<double> writes;
  std::vector<double> ratios;
  for (auto _ : state) {
    saves.push_back(SecondsOf([&] { helper->SetAsDownloadInstalling(kSize, kSize); }));
    writes.push_back(SecondsOf([&] {
      for (int i = 0; i < kWritesPerSave; ++i) {
        plain.Write();
      }
    }));
    ratios.push_back(saves.back() / writes.back());
    state.SetIterationTime(saves.back());
  }
  state.counters["save_us"] = 1e6 * Median(saves);
  state.counters["plain_us"] = 1e6 * Median(writes);
  state.counters["ratio"] = Median(ratios);
}

void Read(benchmark::State& state, bool changed) {
  const auto helper = PackStatusHelper::Create();
  const auto other = PackStatusHelper::Create();
  other->SetAsDownloadInstalling(kSize, kSize);
  for (auto _ : state) {
    if (changed) {
      state.PauseTiming();
      other->SetAsDownloadInstalling(kSize, kSize);
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(helper->GetPackStatus());
  }
}

void SaveTimes(int count) {
  const auto helper = PackStatusHelper::Create();
  for (int i = 0; i < count; ++i) {
    helper->SetAsDownloadInstalling(i, count);
  }
}

void SaveInProcesses(benchmark::State& state) {
  const auto count = static_cast<int>(state.range(0));
  for (auto _ : state) {
    const double seconds = SecondsOf([&] {
      for (int i = 0; i < count; ++i) {
        const pid_t process = fork();
        if (process < 0) {
          Fail("cannot fork");
        }
        if (process == 0) {
          SaveTimes(kSavesPerProcess);
          _exit(EXIT_SUCCESS);
        }
      }
      for (int i = 0; i < count; ++i) {
        int status = 0;
        if (wait(&status) < 0 || status != 0) {
          throw std::runtime_error("a process that saves failed");
        }
      }
    });
    state.SetIterationTime(seconds);
  }
  state.counters["saves_per_s"] = benchmark::Counter(static_cast<double>(state.iterations() * count * kSavesPerProcess),
                                                     benchmark::Counter::kIsRate);
}

BENCHMARK(Save)->Name("Save/against_plain_writes")->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Read, unchanged, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(Read, changed, true)->Iterations(kReadsOfChanged)->Unit(benchmark::kMicrosecond);
BENCHMARK(SaveInProcesses)
    ->Name("Saves")
    ->ArgName("processes")
    ->Arg(1)
    ->Arg(4)
    ->Arg(16)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void MakeFolderOfRecord() { fs::create_directories(fs::path(orbamira::path::kPackStatusFile).parent_path()); }

int RunAll(int argc, char** argv) {
  MakeFolderOfRecord();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return EXIT_FAILURE;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return EXIT_SUCCESS;
}

/// The paths below the root are composed when the program is loaded, so it is started again with its root.
int RunBelow(const fs::path& folder, const std::vector<char*>& arguments) {
  std::string root = (folder / "status-XXXXXX").string();
  if (mkdtemp(root.data()) == nullptr || setenv("ORBAMIRA_ROOT", root.c_str(), 1) != 0) {
    Fail("cannot make a folder in " + folder.string());
  }
  int status = -1;
  pid_t child = 0;
  if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, arguments.data(), environ) == 0) {
    waitpid(child, &status, 0);
  }
  fs::remove_all(root);
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) try {
  std::string below_root = "--below-root";
  if (argc > 1 && argv[1] == below_root) {
    return RunAll(argc - 1, argv + 1);
  }
  if (argc == 3 && std::string_view(argv[1]) == "--saves") {
    MakeFolderOfRecord();
    SaveTimes(std::stoi(argv[2]));
    return EXIT_SUCCESS;
  }
  const bool folder_given = argc > 2 && std::string_view(argv[1]) == "--folder";
  std::vector<char*> arguments(argv + (folder_given ? 3 : 1), argv + argc + 1);
  arguments.insert(arguments.begin(), {argv[0], below_root.data()});
  return RunBelow(folder_given ? fs::absolute(argv[2]) : fs::current_path(), arguments);
} catch (const std::exception& error) {
  std::cerr << "status: " << error.what() << '\n';
  return EXIT_FAILURE;
}
