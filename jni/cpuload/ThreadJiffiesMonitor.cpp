#include "cpuload/ThreadJiffiesMonitor.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

#include "base/clock.h"
#include "base/thread.h"
#include "cpuload/cpuText.h"

namespace {

constexpr size_t kNameBytes = 64;  // fits every path below with any number; the root in front may be longer
constexpr int64_t kUsPerMs = 1000;

// Ticks add up and wrap as 32-bit numbers do, like the kernel's text they come from.
int32_t jiffiesOf(const ThreadStat& stat) {
  return static_cast<int32_t>(static_cast<uint32_t>(stat.utime) + static_cast<uint32_t>(stat.stime));
}

std::string statPath(const std::string& root, int32_t tid) {
  char name[kNameBytes];
  snprintf(name, sizeof(name), "/proc/self/task/%d/stat", tid);
  return root + name;
}

std::string frequencyPath(const std::string& root, int32_t cpu) {
  char name[kNameBytes];
  snprintf(name, sizeof(name), "/sys/devices/system/cpu/cpu%d/cpufreq/scaling_cur_freq", cpu);
  return root + name;
}

}  // namespace

ThreadJiffiesMonitor::ThreadJiffiesMonitor(int32_t tid, int32_t periodMs, std::string root, int32_t cpuCount)
    : m_startTimeMs(nowMs()),
      m_tid(tid),
      m_periodUs(periodMs * kUsPerMs),
      m_root(std::move(root)),
      m_cpuCount(cpuCount) {}

ThreadJiffiesMonitor::~ThreadJiffiesMonitor() {
  stop();
}

bool ThreadJiffiesMonitor::prepare() {
  if (m_tid == 0 || m_cpuCount < 1) return false;
  for (int32_t cpu = 0; cpu < m_cpuCount; ++cpu) {
    m_freqFiles.push_back(std::make_unique<PolledFile>(frequencyPath(m_root, cpu)));
  }
  m_statFile = std::make_unique<PolledFile>(statPath(m_root, m_tid));
  const char* text = m_statFile->poll();
  m_lastJiffies = *text == '\0' ? -2 : jiffiesOf(parseThreadStat(text));
  return m_lastJiffies >= 0;
}

bool ThreadJiffiesMonitor::startSampler() {
  m_running.store(1, std::memory_order_relaxed);
  m_joinable = pthread_create(&m_thread, nullptr, traceCpuLoadThread, this) == 0;
  return m_joinable;
}

int32_t ThreadJiffiesMonitor::stop() {
  m_running.store(0, std::memory_order_relaxed);
  if (m_joinable) pthread_join(m_thread, nullptr);
  m_joinable = false;
  return m_weightedJiffies;
}

void ThreadJiffiesMonitor::sample() {
  const char* text = m_statFile->poll();
  if (*text == '\0') return;
  const ThreadStat stat = parseThreadStat(text);
  const int32_t cur = jiffiesOf(stat);
  if (cur < 0 || stat.processor < 0 || stat.processor >= m_cpuCount) return;
  // -1 for an unreadable frequency is deliberately not special: it subtracts the ticks.
  const int32_t frequency = parseFrequency(m_freqFiles[stat.processor]->poll());
  const uint32_t ticks = static_cast<uint32_t>(cur) - static_cast<uint32_t>(m_lastJiffies);
  m_weightedJiffies = static_cast<int32_t>(static_cast<uint32_t>(m_weightedJiffies) +
                                           static_cast<uint32_t>(frequency) * ticks);
  m_lastJiffies = cur;
}

void ThreadJiffiesMonitor::sleepPeriod() const {
  const auto microseconds = static_cast<useconds_t>(m_periodUs);
  if (microseconds != 0) usleep(microseconds);  // even a sleep of 0 pauses for the timer's slack
}

void* traceCpuLoadThread(void* monitor) {
  nameThisThread("tarn-sampler");
  auto* self = static_cast<ThreadJiffiesMonitor*>(monitor);
  while (self->running() != 0) {
    self->sample();
    self->sleepPeriod();
  }
  return nullptr;
}
