#include "cpuload/cpuLoad.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <utility>
#include <vector>

#include "base/descriptor.h"

namespace {

constexpr int32_t kTooManyCpus = 128;

bool isDirectory(const std::string& path) {
  int fd = keepAboveStdio(retryEintr([&] { return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (fd < 0) return false;
  closeDescriptor(fd);
  return true;
}

}  // namespace

const int32_t g_cpuCount = countCpus("");
std::map<int32_t, std::unique_ptr<ThreadJiffiesMonitor>>& g_monitors =
    *new std::map<int32_t, std::unique_ptr<ThreadJiffiesMonitor>>;
std::mutex& g_monitorsLock = *new std::mutex;

int32_t countCpus(const std::string& root) {
  for (int32_t count = 0; count < kTooManyCpus; ++count) {
    char name[64];
    snprintf(name, sizeof(name), "/sys/devices/system/cpu/cpu%d", count);
    if (!isDirectory(root + name)) return count;
  }
  return 0;  // deliberately, not 128
}

int32_t handleOf(const ThreadJiffiesMonitor* monitor) {
  return static_cast<int32_t>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(monitor)));
}

int32_t startTrace(int32_t tid, int32_t periodMs, const std::string& root, int32_t cpuCount,
                   int32_t (*handleOfMonitor)(const ThreadJiffiesMonitor*)) {
  std::vector<std::unique_ptr<ThreadJiffiesMonitor>> setAside;
  for (int attempt = 0; attempt < kHandleAttempts; ++attempt) {
    auto monitor = std::make_unique<ThreadJiffiesMonitor>(tid, periodMs, root, cpuCount);
    if (!monitor->prepare()) return 0;
    const int32_t handle = handleOfMonitor(monitor.get());
    {
      std::lock_guard<std::mutex> lock(g_monitorsLock);
      if (handle != 0 && g_monitors.count(handle) == 0) {
        if (!monitor->startSampler()) return 0;
        g_monitors.emplace(handle, std::move(monitor));
        return handle;
      }
    }
    setAside.push_back(std::move(monitor));
  }
  return 0;
}

int32_t startTraceCpuLoad(int32_t tid, int32_t periodMs) {
  return startTrace(tid, periodMs, "", g_cpuCount);
}

int32_t stopTraceCpuLoad(int32_t handle) {
  if (handle == 0) return -1;
  std::unique_ptr<ThreadJiffiesMonitor> monitor;
  {
    std::lock_guard<std::mutex> lock(g_monitorsLock);
    const auto found = g_monitors.find(handle);
    if (found == g_monitors.end()) return -1;
    monitor = std::move(found->second);
    g_monitors.erase(found);
  }
  return monitor->stop();
}

int32_t tickRate() {
  return static_cast<int32_t>(sysconf(_SC_CLK_TCK));
}
