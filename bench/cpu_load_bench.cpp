// What one sample of a CPU-load trace costs, beside nothing but reading the same two files.
//
// The stat file is the real one of this thread, the frequency file a made-up one, so that machines without
// frequency scaling measure the same thing. "blocks" counts the calls of malloc() per iteration.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "cpuload/ThreadJiffiesMonitor.h"
#include "support/CountedHeap.h"
#include "support/Rows.h"

namespace fs = std::filesystem;

namespace {

constexpr int kCpus = 128;

// A root with this machine's /proc and with a made-up frequency file for every CPU.
class Root {
 public:
  Root() {
    std::string name = fs::temp_directory_path() / "cpu_load_bench_XXXXXX";
    m_path = mkdtemp(name.data());
    fs::create_directory_symlink("/proc", m_path + "/proc");
    for (int cpu = 0; cpu < kCpus; ++cpu) {
      fs::create_directories(fs::path(frequencyFile(cpu)).parent_path());
      std::ofstream(frequencyFile(cpu)) << "1800000\n";
    }
  }
  ~Root() { fs::remove_all(m_path); }

  const std::string& path() const { return m_path; }
  std::string frequencyFile(int cpu) const {
    return m_path + "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/scaling_cur_freq";
  }

 private:
  std::string m_path;
};

void reportAllocations(benchmark::State& state, int64_t before) {
  state.counters["blocks"] =
      benchmark::Counter(static_cast<double>(g_blocks - before), benchmark::Counter::kAvgIterations);
}

void oneSample(benchmark::State& state) {
  const Root root;
  ThreadJiffiesMonitor monitor(gettid(), 0, root.path(), kCpus);
  if (!monitor.prepare()) state.SkipWithError("no stat file");
  monitor.sample();
  const int64_t before = g_blocks;
  while (state.KeepRunning()) monitor.sample();
  reportAllocations(state, before);
}
BENCHMARK(oneSample);

using Read = ssize_t (*)(int fd, char* buffer, size_t bytes);

ssize_t seekAndRead(int fd, char* buffer, size_t bytes) {
  lseek(fd, 0, SEEK_SET);
  return read(fd, buffer, bytes);
}

ssize_t readAtStart(int fd, char* buffer, size_t bytes) {
  return pread(fd, buffer, bytes, 0);
}

void bareReads(benchmark::State& state, Read readFile) {
  const Root root;
  const std::string statFile = "/proc/self/task/" + std::to_string(gettid()) + "/stat";
  const int stat = open(statFile.c_str(), O_RDONLY | O_CLOEXEC);
  const int frequency = open(root.frequencyFile(0).c_str(), O_RDONLY | O_CLOEXEC);
  char buffer[4096];
  const int64_t before = g_blocks;
  while (state.KeepRunning()) {
    if (readFile(stat, buffer, sizeof(buffer)) < 1) state.SkipWithError("the stat file gave nothing");
    if (readFile(frequency, buffer, sizeof(buffer)) < 1)
      state.SkipWithError("the frequency file gave nothing");
  }
  reportAllocations(state, before);
  close(stat);
  close(frequency);
}
BENCHMARK_CAPTURE(bareReads, lseek_read, seekAndRead);
BENCHMARK_CAPTURE(bareReads, pread, readAtStart);

const Row kRows[] = {
    {"CPU-load sample", "us", "oneSample", "bareReads/pread", "time", atMost(1.10)},
    {"heap blocks per CPU-load sample", "", "oneSample", "", "blocks", atMost(0)},
};

}  // namespace
