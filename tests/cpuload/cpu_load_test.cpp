#include "cpuload/cpuLoad.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <thread>
#include <tuple>

#include "cpuload/cpuText.h"
#include "support/Support.h"

namespace fs = std::filesystem;

namespace {

constexpr int32_t kTid = 77;

std::string statText(int32_t ticks, int32_t cpu, const std::string& name = "(worker)") {
  return "77 " + name + " S 4 5 6 7 8 9 10 11 12 13 " + std::to_string(ticks - ticks / 4) + " " +
         std::to_string(ticks / 4) + " 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 " + std::to_string(cpu) +
         " 0 0\n";
}

size_t openFiles() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

// A made-up /proc and /sys, under a root that is longer than any of the paths below it.
class CpuLoad : public testing::Test {
 protected:
  CpuLoad() {
    std::string name = testing::TempDir() + "cpu_load_with_a_root_longer_than_64_bytes_0123456789_XXXXXX";
    m_root = mkdtemp(name.data());
    m_statFile = m_root + "/proc/self/task/77/stat";
    write(m_statFile, statText(1, 0));
  }
  ~CpuLoad() override { fs::remove_all(m_root); }

  std::string cpuFolder(int cpu) const {
    return m_root + "/sys/devices/system/cpu/cpu" + std::to_string(cpu);
  }
  std::string frequencyFile(int cpu) const { return cpuFolder(cpu) + "/cpufreq/scaling_cur_freq"; }

  static void write(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
    if (text.empty()) fs::remove(path);  // reads of the open file find nothing, as the kernel's do
  }

  std::string m_root, m_statFile;
};

TEST_F(CpuLoad, CountingStopsAtTheFirstGapAndGivesNoneFrom128On) {
  int made = 0;
  for (const auto& [directories, count] : {std::pair(0, 0), {8, 8}, {127, 127}, {128, 0}, {130, 0}}) {
    for (; made < directories; ++made) fs::create_directories(cpuFolder(made));
    EXPECT_EQ(countCpus(m_root), count) << directories;
  }
  fs::remove(cpuFolder(5));
  write(cpuFolder(5), "a file is not a CPU");
  EXPECT_EQ(countCpus(m_root), 5);
}

TEST_F(CpuLoad, TextsAreReadByCountingSpaces) {
  const std::string twelve = "1 (a) S 4 5 6 7 8 9 10 11 12 13";
  const std::tuple<std::string, int, int, int> stats[] = {
      {statText(40, 3), 30, 10, 3},
      {statText(40, 3, "(a b c)"), 12, 13, 0},  // shifted by the name's blanks
      {twelve, -1, -1, -1},
      {twelve + " +14x -15 16", 14, -15, -1},
      {twelve + "  4294967297 16", 1, 1, -1},  // two spaces count twice; numbers wrap
      {twelve + " x 99999999999999999999999", 0, -159383553, -1}};
  for (const auto& c : stats) {
    const ThreadStat stat = parseThreadStat(std::get<0>(c).c_str());
    EXPECT_EQ(std::tuple(std::get<0>(c), stat.utime, stat.stime, stat.processor), c);
  }
  for (const auto& [text, khz] : {std::pair("", -1), {" 18", -1}, {"18\n", 18}, {"<unknown>\n", 0}}) {
    EXPECT_EQ(parseFrequency(text), khz) << text;
  }
}

TEST_F(CpuLoad, PolledFilesTake4096BytesAndKeepAwayFromDescriptor0) {
  write(m_statFile, std::string(5000, 'x'));
  const int input = dup(0);
  close(0);
  PolledFile file(m_statFile);
  EXPECT_EQ(std::string(file.poll()).size(), 4096U);
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  dup2(input, 0);
  close(input);
}

TEST_F(CpuLoad, EverySampleChargesTheTicksSinceTheLastCountedOne) {
  for (int cpu : {0, 1, 2}) write(frequencyFile(cpu), cpu == 1 ? "500000\n" : "1800000\n");
  write(m_statFile, statText(100, 0));
  ThreadJiffiesMonitor monitor(kTid, 0, m_root, 4);
  ASSERT_TRUE(monitor.prepare());
  const auto start = std::chrono::steady_clock::now();
  ThreadJiffiesMonitor(kTid, 20, m_root, 4).sleepPeriod();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  const char* const at2 = "1800000\n";  // the frequency of CPU 2
  const std::tuple<const char*, std::string, const char*, int32_t> steps[] = {
      {"an idle thread", statText(100, 0), at2, 0},
      {"10 ticks at 1800000 kHz", statText(110, 2), at2, 18000000},
      {"skipped: a CPU that was not counted", statText(115, 4), at2, 18000000},
      {"skipped: a negative CPU", statText(115, -1), at2, 18000000},
      {"skipped: negative ticks", statText(-115, 1), at2, 18000000},
      {"skipped: an empty text", "", at2, 18000000},
      {"20 ticks at 500000 kHz, the skipped ones too", statText(130, 1), at2, 28000000},
      {"a frequency that was never readable subtracts", statText(140, 3), at2, 27999990},
      {"a frequency that vanished subtracts", statText(145, 2), "", 27999985},
      {"one that is back counts again; the sum wraps", statText(1245, 2), "2000000\n", -2066967311}};
  for (const auto& [what, stat, frequency, sum] : steps) {
    write(m_statFile, stat);
    write(frequencyFile(2), frequency);
    monitor.sample();
    EXPECT_EQ(monitor.weightedJiffies(), sum) << what;
  }
}

TEST_F(CpuLoad, FailedStartsLeaveNothingBehind) {
  std::thread([] {}).join();  // whatever the run-time starts with the first thread is there now
  const size_t files = openFiles();
  for (const auto& [tid, cpuCount, stat] : {std::tuple(0, 1, statText(1, 0)),
                                            {kTid, 0, statText(1, 0)},
                                            {kTid, 1, ""},
                                            {kTid, 1, "77 (short) S 4 5 6 7"}}) {
    write(m_statFile, stat);
    EXPECT_EQ(startTrace(tid, 0, m_root, cpuCount), 0) << tid << " " << cpuCount << " " << stat;
  }
  write(m_statFile, statText(1, 0));
  pthread_attr_t normal, impossible;
  for (auto* attributes : {&normal, &impossible}) pthread_getattr_default_np(attributes);
  pthread_attr_setstacksize(&impossible, size_t{1} << 50);
  pthread_setattr_default_np(&impossible);
  EXPECT_EQ(startTrace(kTid, 0, m_root, 1), 0) << "no thread to be had";
  pthread_setattr_default_np(&normal);
  EXPECT_EQ(openFiles(), files);
  EXPECT_TRUE(g_monitors.empty());
}

std::vector<int32_t> g_offered;                     // handles to pretend, last one first
std::set<const ThreadJiffiesMonitor*> g_addresses;  // where the monitors lay

int32_t pretendedHandle(const ThreadJiffiesMonitor* monitor) {
  g_addresses.insert(monitor);
  if (g_offered.empty()) return handleOf(monitor);
  const int32_t handle = g_offered.back();
  g_offered.pop_back();
  return handle;
}

TEST_F(CpuLoad, AHandleThatIsZeroOrTakenIsPassedOver) {
  const int32_t first = startTrace(kTid, 1, m_root, 1);
  g_offered = {first, 0, first};
  const int32_t second = startTrace(kTid, 1, m_root, 1, pretendedHandle);
  EXPECT_EQ(g_addresses.size(), 4U) << "each lay in another place";
  g_offered.assign(kHandleAttempts, first);
  EXPECT_EQ(startTrace(kTid, 1, m_root, 1, pretendedHandle), 0) << "gives up at last";
  EXPECT_EQ(stopTraceCpuLoad(first), 0);
  EXPECT_EQ(stopTraceCpuLoad(second), 0);
}

TEST_F(CpuLoad, StartsAndStopsFromManyThreadsLoseNoTrace) {
  std::thread threads[4];
  for (auto& thread : threads) {
    thread = std::thread([&] {
      for (int round = 0; round < 20; ++round) {
        const int32_t handle = startTrace(kTid, round % 2, m_root, 1);
        EXPECT_EQ(stopTraceCpuLoad(handle), 0);
        EXPECT_EQ(stopTraceCpuLoad(handle | 1), -1) << "monitors are aligned: no handle is odd";
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(stopTraceCpuLoad(0), -1);
  EXPECT_TRUE(g_monitors.empty());
}

TEST_F(CpuLoad, AStopThatWaitsForItsSamplerHoldsNoLock) {
  fs::create_directories(cpuFolder(0) + "/cpufreq");
  ASSERT_EQ(mkfifo(frequencyFile(0).c_str(), 0600), 0);  // a sampler waits in there for a writer
  const int32_t stuck = startTrace(kTid, 0, m_root, 1);
  ASSERT_TRUE(eventually([] { return stateOf("tarn-sampler") == 'S'; })) << "it sleeps nowhere but in there";
  auto waiting = std::async(std::launch::async, stopTraceCpuLoad, stuck);
  EXPECT_TRUE(eventually([&] {
    const std::unique_lock<std::mutex> lock(g_monitorsLock, std::try_to_lock);
    return lock.owns_lock() && g_monitors.count(stuck) == 0;
  }));
  while (waiting.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
    close(open(frequencyFile(0).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  }
  EXPECT_EQ(waiting.get(), 0);
}

}  // namespace
