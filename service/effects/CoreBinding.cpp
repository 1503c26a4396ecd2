#include "service/effects/CoreBinding.h"

#include <cerrno>

namespace service {
namespace {

int highestCpu(const cpu_set_t& cpus) {
  int highest = -1;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &cpus)) highest = cpu;
  }
  return highest;
}

/// "0-3,6": the CPUs of a set.
std::string cpuListText(const cpu_set_t& cpus) {
  std::string text;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &cpus)) continue;
    const int first = cpu;
    while (cpu + 1 < CPU_SETSIZE && CPU_ISSET(cpu + 1, &cpus)) ++cpu;
    text += (text.empty() ? "" : ",") + std::to_string(first);
    if (cpu > first) text += "-" + std::to_string(cpu);
  }
  return text;
}

}  // namespace

CoreBinding::CoreBinding(std::shared_ptr<const Process> process, pid_t tid, uint64_t start)
    : m_process(std::move(process)), m_tid(tid), m_start(start) {}

std::string CoreBinding::key() const {
  return "affinity of " + std::to_string(m_tid) + " started " + std::to_string(m_start);
}

Outcome CoreBinding::apply(int /*strength*/) {
  const std::string thread = "thread " + std::to_string(m_tid);
  if (!threadIsThere()) return {Status::NOT_YOURS, thread + " has ended"};
  cpu_set_t now{};
  if (sched_getaffinity(m_tid, sizeof(now), &now) != 0) return failure("the CPUs of " + thread, errno);
  if (m_bound && CPU_EQUAL(&now, &m_applied)) {
    return {Status::DONE, thread + " stays on CPU " + cpuListText(m_applied)};
  }
  const cpu_set_t original = m_bound ? m_original : now;
  cpu_set_t wanted{};
  CPU_SET(highestCpu(original), &wanted);
  if (sched_setaffinity(m_tid, sizeof(wanted), &wanted) != 0) return failure("binding " + thread, errno);
  m_original = original;
  m_applied = wanted;
  m_bound = true;
  if (CPU_COUNT(&original) == 1) {
    return {Status::DONE, thread + " may run on CPU " + cpuListText(original) + " only, and stays there"};
  }
  return {Status::DONE, thread + " CPUs " + cpuListText(original) + " -> " + cpuListText(wanted)};
}

Outcome CoreBinding::restore() {
  const std::string thread = "thread " + std::to_string(m_tid);
  cpu_set_t now{};
  if (!threadIsThere() || sched_getaffinity(m_tid, sizeof(now), &now) != 0) {
    return {Status::DONE, thread + " has ended"};
  }
  if (!CPU_EQUAL(&now, &m_applied)) {
    return {Status::DONE, thread + " was moved to CPUs " + cpuListText(now) + " by others, left so"};
  }
  if (sched_setaffinity(m_tid, sizeof(m_original), &m_original) != 0) {
    return failure("putting " + thread + " back", errno);
  }
  return {Status::DONE, thread + " CPUs " + cpuListText(now) + " -> " + cpuListText(m_original)};
}

}  // namespace service
