#include "cpuLoad.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <thread>

#include "cpuText.h"
#include "support/Support.h"

namespace fs = std::filesystem;

// The exit test ends a process on purpose while samplers run.
extern "C" const char* __tsan_default_options() {
  return "report_thread_leaks=0";
}

namespace {

constexpr int32_t kTid = 77;

std::string statText(int32_t ticks, int32_t cpu, const std::string& name = "(worker)") {
  std::string text = "77 " + name + " S 4 5 6 7 8 9 10 11 12 13 " + std::to_string(ticks - ticks / 4) + " " +
                     std::to_string(ticks / 4);
  for (int field = 16; field < 39; ++field) text += " 0";
  return text + " " + std::to_string(cpu) + " 0 0\n";
}

size_t entries(const char* folder) {
  return std::distance(fs::directory_iterator(folder), {});
}

// A made-up /proc and /sys, under a root that is longer than any of the paths below it.
class CpuLoad : public testing::Test {
 protected:
  CpuLoad() {
    std::string name = testing::TempDir() + "cpu_load_with_a_root_longer_than_64_bytes_0123456789_XXXXXX";
    m_root = mkdtemp(name.data());
  }
  ~CpuLoad() override { fs::remove_all(m_root); }

  std::string statFile() const { return m_root + "/proc/self/task/77/stat"; }
  std::string cpuFolder(int cpu) const {
    return m_root + "/sys/devices/system/cpu/cpu" + std::to_string(cpu);
  }
  std::string frequencyFile(int cpu) const { return cpuFolder(cpu) + "/cpufreq/scaling_cur_freq"; }

  static void write(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
  }
  static void vanish(const std::string& path) {  // reads of an open file find nothing, as the kernel's do
    write(path, "");
    fs::remove(path);
  }

  std::string m_root;
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
  const struct {
    std::string text;
    int32_t utime, stime, processor;
  } stats[] = {{statText(40, 3), 30, 10, 3},
               {statText(40, 3, "(a b c)"), 12, 13, 0},  // shifted by the name's blanks
               {twelve, -1, -1, -1},
               {twelve + " 14", 14, -1, -1},
               {twelve + " +14x -15 16", 14, -15, -1},
               {twelve + "  4294967297 16", 1, 1, -1},  // two spaces count twice; numbers wrap
               {twelve + " x 99999999999999999999999", 0, -159383553, -1},
               {"", -1, -1, -1}};
  for (const auto& c : stats) {
    const ThreadStat stat = parseThreadStat(c.text.c_str());
    EXPECT_EQ(stat.utime, c.utime) << c.text;
    EXPECT_EQ(stat.stime, c.stime) << c.text;
    EXPECT_EQ(stat.processor, c.processor) << c.text;
  }
  for (const auto& [text, frequency] :
       {std::pair("", -1), {" 1800000", -1}, {"1800000\n", 1800000}, {"<unknown>\n", 0}}) {
    EXPECT_EQ(parseFrequency(text), frequency) << text;
  }
}

TEST_F(CpuLoad, PolledFilesTake4096BytesAndKeepAwayFromDescriptor0) {
  write(statFile(), std::string(5000, 'x'));
  const int input = dup(0);
  close(0);
  PolledFile file(statFile());
  EXPECT_EQ(std::string(file.poll()).size(), 4096U);
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  dup2(input, 0);
  close(input);
}

TEST_F(CpuLoad, EverySampleChargesTheTicksSinceTheLastCountedOne) {
  for (int cpu : {0, 1, 2}) write(frequencyFile(cpu), cpu == 1 ? "500000\n" : "1800000\n");
  write(statFile(), statText(100, 0));
  ThreadJiffiesMonitor monitor(kTid, 0, m_root, 4);
  ASSERT_TRUE(monitor.prepare());
  const struct {
    const char* what;
    std::string stat;
    int32_t weighted;
    std::function<void()> first = [] {};
  } steps[] = {
      {"an idle thread", statText(100, 0), 0},
      {"10 ticks at 1800000 kHz", statText(110, 2), 18000000},
      {"skipped: a CPU that was not counted", statText(115, 4), 18000000},
      {"skipped: a negative CPU", statText(115, -1), 18000000},
      {"skipped: negative ticks", statText(-115, 1), 18000000},
      {"skipped: no CPU in the text", statText(115, 1).substr(0, 60), 18000000},
      {"skipped: an empty text", "", 18000000},
      {"20 ticks at 500000 kHz, the skipped ones too", statText(130, 1), 28000000},
      {"a frequency that was never readable subtracts", statText(140, 3), 27999990},
      {"a frequency that vanished subtracts", statText(145, 2), 27999985, [&] { vanish(frequencyFile(2)); }},
      {"and goes on subtracting", statText(146, 2), 27999984},
      {"a frequency that is back; the sum wraps", statText(1246, 2), -2066967312,
       [&] { write(frequencyFile(2), "2000000\n"); }},
  };
  for (const auto& step : steps) {
    write(statFile(), step.stat);
    step.first();
    monitor.sample();
    EXPECT_EQ(monitor.weightedJiffies(), step.weighted) << step.what;
  }
  vanish(statFile());
  for (int poll = 0; poll < 2; ++poll) monitor.sample();
  EXPECT_EQ(monitor.lastJiffies(), 1246) << "a thread that has ended is not counted any more";
}

TEST_F(CpuLoad, FailedStartsLeaveNothingBehind) {
  std::thread([] {}).join();  // whatever the run-time starts with the first thread is there now
  const size_t files = entries("/proc/self/fd");
  const struct {
    int32_t tid, cpuCount;
    std::string stat;
  } cases[] = {{0, 1, statText(1, 0)}, {kTid, 0, statText(1, 0)},         {kTid, -1, statText(1, 0)},
               {kTid, 1, ""},          {kTid, 1, "77 (short) S 4 5 6 7"}, {kTid + 1, 1, statText(1, 0)}};
  for (const auto& c : cases) {
    write(statFile(), c.stat);
    EXPECT_EQ(startTrace(c.tid, 0, m_root, c.cpuCount), 0) << c.tid << " " << c.cpuCount << " " << c.stat;
  }
  pthread_attr_t normal, impossible;
  for (auto* attributes : {&normal, &impossible}) pthread_getattr_default_np(attributes);
  pthread_attr_setstacksize(&impossible, size_t{1} << 50);
  pthread_setattr_default_np(&impossible);
  write(statFile(), statText(1, 0));
  EXPECT_EQ(startTrace(kTid, 0, m_root, 1), 0) << "no thread to be had";
  pthread_setattr_default_np(&normal);
  EXPECT_EQ(entries("/proc/self/fd"), files);
  EXPECT_TRUE(g_monitors.empty());
}

std::vector<int32_t> g_offered;                     // handles to pretend, last one first
std::set<const ThreadJiffiesMonitor*> g_addresses;  // where the monitors lay

int32_t pretendedHandle(const ThreadJiffiesMonitor* monitor) {
  g_addresses.insert(monitor);
  const int32_t handle = g_offered.empty() ? handleOf(monitor) : g_offered.back();
  if (!g_offered.empty()) g_offered.pop_back();
  return handle;
}

TEST_F(CpuLoad, AHandleThatIsZeroOrTakenIsPassedOver) {
  write(statFile(), statText(1, 0));
  const int32_t first = startTrace(kTid, 1, m_root, 1);
  const auto* kept = g_monitors[first].get();
  g_offered = {first, 0, first};
  const int32_t second = startTrace(kTid, 1, m_root, 1, pretendedHandle);
  EXPECT_EQ(g_addresses.size(), 4U) << "each lay in another place";
  EXPECT_EQ(second, handleOf(g_monitors[second].get()));
  g_offered.assign(kHandleAttempts, first);
  EXPECT_EQ(startTrace(kTid, 1, m_root, 1, pretendedHandle), 0) << "gives up at last";
  EXPECT_EQ(g_monitors[first].get(), kept);
  EXPECT_EQ(stopTraceCpuLoad(first), 0);
  EXPECT_EQ(stopTraceCpuLoad(second), 0);
}

TEST_F(CpuLoad, StartsAndStopsFromManyThreadsLoseNoTrace) {
  write(statFile(), statText(1, 0));
  const size_t files = entries("/proc/self/fd");
  std::atomic<int> stopped{0};
  std::thread threads[4];
  for (auto& thread : threads) {
    thread = std::thread([&] {
      for (int round = 0; round < 20; ++round) {
        stopped += stopTraceCpuLoad(startTrace(kTid, round % 2, m_root, 1)) == 0;
        EXPECT_EQ(stopTraceCpuLoad(1), -1);  // monitors are aligned: no handle is odd
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(stopped, 80);

  const int32_t handle = startTrace(kTid, 1, m_root, 1);
  auto other = std::async(std::launch::async, stopTraceCpuLoad, handle);
  EXPECT_EQ(stopTraceCpuLoad(handle) + other.get(), -1) << "one stop gets the 0, the other the -1";
  EXPECT_EQ(stopTraceCpuLoad(0), -1);
  EXPECT_TRUE(g_monitors.empty());
  EXPECT_EQ(entries("/proc/self/fd"), files);
}

TEST_F(CpuLoad, AStopThatWaitsForItsSamplerHoldsUpNobodyElse) {
  write(statFile(), statText(1, 0));
  fs::create_directories(cpuFolder(0) + "/cpufreq");
  ASSERT_EQ(mkfifo(frequencyFile(0).c_str(), 0600), 0);  // a sampler waits in there for a writer
  const int32_t stuck = startTrace(kTid, 0, m_root, 1);
  auto waiting = std::async(std::launch::async, stopTraceCpuLoad, stuck);
  auto others = std::async(std::launch::async, [stuck] {
    const auto takenOut = [stuck] {
      std::lock_guard<std::mutex> lock(g_monitorsLock);
      return g_monitors.count(stuck) == 0;
    };
    EXPECT_TRUE(eventually(takenOut));
    stopTraceCpuLoad(startTrace(getpid(), 0, "", 1));
  });
  EXPECT_EQ(others.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  while (waiting.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
    close(open(frequencyFile(0).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  }
  EXPECT_EQ(waiting.get(), 0);
}

TEST(CpuLoadOfThisMachine, TheProcessMayExitWhileSamplersRun) {
  EXPECT_EXIT(
      {
        for (int32_t periodMs : {0, 0, 1, -1}) {
          if (startTrace(getpid(), periodMs, "", 1) == 0) _exit(1);
        }
        exit(0);  // NOLINT(concurrency-mt-unsafe): ends as an application does
      },
      testing::ExitedWithCode(0), "");
}

TEST(CpuLoadOfThisMachine, ABusyThreadIsChargedAndAnIdleOneIsNot) {
  if (g_cpuCount == 0) GTEST_SKIP() << "no CPU directories here";
  EXPECT_EQ(tickRate(), sysconf(_SC_CLK_TCK));
  std::promise<int32_t> tid;
  std::promise<void> end;
  std::thread idle([&] {
    tid.set_value(gettid());
    end.get_future().wait();
  });
  const int32_t idleTid = tid.get_future().get();
  const bool weighted = fs::exists("/sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq");
  const auto seen = [&] {
    const int32_t busyTrace = startTraceCpuLoad(gettid(), 1);
    const int32_t idleTrace = startTraceCpuLoad(idleTid, 1);
    using Clock = std::chrono::steady_clock;
    for (const auto until = Clock::now() + std::chrono::milliseconds(100); Clock::now() < until;) {
    }
    const int32_t busy = stopTraceCpuLoad(busyTrace);
    const int32_t waiting = stopTraceCpuLoad(idleTrace);
    // Minus the ticks where no frequency can be read; -1 alone might be a refusal.
    return (weighted ? busy > 0 : busy < -1) && waiting == 0;
  };
  EXPECT_TRUE(eventually(seen, 60));
  end.set_value();
  idle.join();
}

}  // namespace
