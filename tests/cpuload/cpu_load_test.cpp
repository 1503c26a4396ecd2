// Traces and their handles; what the kernel's texts add up to is held by the cpu fuzzer.
#include "cpuload/cpuLoad.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <future>
#include <set>

#include "support/Support.h"

namespace fs = std::filesystem;

namespace {

constexpr int32_t kTid = 77;

// A made-up /proc and /sys, under a root that is longer than any of the paths below it.
class CpuLoad : public testing::Test {
 protected:
  CpuLoad() {
    std::string name = testing::TempDir() + "cpu_load_with_a_root_longer_than_64_bytes_0123456789_XXXXXX";
    m_root = mkdtemp(name.data());
    fs::create_directories(m_root + "/proc/self/task/77");
    std::ofstream(m_root + "/proc/self/task/77/stat")
        << "77 (worker) S 4 5 6 7 8 9 10 11 12 13 1 0" + Bytes(24, ' ') + "0";
  }
  ~CpuLoad() override { fs::remove_all(m_root); }

  std::string cpuFolder(int cpu) const {
    return m_root + "/sys/devices/system/cpu/cpu" + std::to_string(cpu);
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
  std::ofstream(cpuFolder(5)) << "a file is not a CPU";
  EXPECT_EQ(countCpus(m_root), 5);
}

TEST_F(CpuLoad, APeriodIsInMilliseconds) {
  const auto start = std::chrono::steady_clock::now();
  ThreadJiffiesMonitor(kTid, 20, m_root, 4).sleepPeriod();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
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
  EXPECT_EQ(startTrace(0, 1, m_root, 1), 0) << "no thread has this number";
  EXPECT_EQ(startTrace(kTid, 1, m_root, 0), 0) << "no CPU was counted";
  for (const int32_t handle : {first, second}) EXPECT_EQ(stopTraceCpuLoad(handle), 0);
  for (const int32_t handle : {first, first | 1, 0}) EXPECT_EQ(stopTraceCpuLoad(handle), -1);
}

TEST_F(CpuLoad, AStopThatWaitsForItsSamplerHoldsNoLock) {
  fs::create_directories(cpuFolder(0) + "/cpufreq");
  const std::string frequency = cpuFolder(0) + "/cpufreq/scaling_cur_freq";
  ASSERT_EQ(mkfifo(frequency.c_str(), 0600), 0);  // a sampler waits in there for a writer
  const int32_t stuck = startTrace(kTid, 0, m_root, 1);
  ASSERT_TRUE(eventually([] { return stateOf("tarn-sampler") == 'S'; })) << "it sleeps nowhere but in there";
  auto waiting = std::async(std::launch::async, stopTraceCpuLoad, stuck);
  EXPECT_TRUE(eventually([&] {
    const std::unique_lock<std::mutex> lock(g_monitorsLock, std::try_to_lock);
    return lock.owns_lock() && g_monitors.count(stuck) == 0;
  }));
  while (waiting.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
    close(open(frequency.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  }
  EXPECT_EQ(waiting.get(), 0);
}

}  // namespace
