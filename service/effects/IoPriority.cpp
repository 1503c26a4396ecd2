#include "service/effects/IoPriority.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace service {
namespace {

// Of the kernel's interface, which the C library does not wrap.
constexpr int kWhoProcess = 1;  // in truth: one thread
constexpr int kClassShift = 13;
constexpr int kClassRealtime = 1, kClassBestEffort = 2;
constexpr int kClassMask = 7;

constexpr size_t kMaxThreads = 4096;
constexpr int kStrongest = 3;

int ioPriority(pid_t tid) {
  return static_cast<int>(syscall(SYS_ioprio_get, kWhoProcess, tid));
}

bool setIoPriority(pid_t tid, int value) {
  return syscall(SYS_ioprio_set, kWhoProcess, tid, value) == 0;
}

int boostedPriority(int strength) {
  return kClassBestEffort << kClassShift | (kStrongest - std::min(strength, kStrongest));
}

std::string priorityText(int value) {
  static const char* const kClasses[] = {"none", "realtime", "best-effort", "idle"};
  const int kind = value >> kClassShift & kClassMask;
  return kind > 3 ? std::to_string(value) : std::string(kClasses[kind]) + "/" + std::to_string(value & 7);
}

}  // namespace

IoPriority::IoPriority(std::shared_ptr<const Process> process) : m_process(std::move(process)) {}

std::string IoPriority::key() const {
  const pid_t pid = m_process->pid();
  return "I/O priority of " + std::to_string(pid) + " started " +
         std::to_string(m_process->threadStart(pid).value_or(0));
}

Outcome IoPriority::apply(int strength) {
  const int wanted = boostedPriority(strength);
  int error = ESRCH;  // what is wrong with a process without threads
  int kept = 0;
  for (const pid_t tid : m_process->threads(kMaxThreads)) {
    const int now = ioPriority(tid);
    const auto start = m_process->threadStart(tid);
    const auto known = m_threads.find(tid);
    const bool isKnown = known != m_threads.end() && start == known->second.start;
    // A thread that runs with realtime priority has more than this boost would give.
    if (now < 0 || !start || now >> kClassShift == kClassRealtime) continue;
    if (!setIoPriority(tid, wanted)) {
      error = errno;
      continue;
    }
    ++kept;
    // Born boosted: its own original is not known, restore() treats it so.
    if (!isKnown && now != m_applied) m_threads[tid] = {*start, now};
  }
  const std::string process = "process " + std::to_string(m_process->pid());
  if (kept == 0) {
    if (error == ENOSYS) return {Status::NOT_AVAILABLE, "this system has no I/O priorities"};
    return failure("I/O priority of " + process, error);
  }
  m_applied = wanted;
  return {Status::DONE, "I/O priority of " + std::to_string(kept) + " threads of " + process + " -> " +
                            priorityText(wanted)};
}

Outcome IoPriority::restore() {
  const std::string process = "process " + std::to_string(m_process->pid());
  const auto first = m_threads.find(m_process->pid());
  const int fallback = first != m_threads.end() ? first->second.original : 0;
  int restored = 0;
  for (const pid_t tid : m_process->threads(kMaxThreads)) {
    const auto start = m_process->threadStart(tid);
    if (!start || ioPriority(tid) != m_applied) continue;  // has ended, or was changed by others
    const auto known = m_threads.find(tid);
    const bool isKnown = known != m_threads.end() && *start == known->second.start;
    if (setIoPriority(tid, isKnown ? known->second.original : fallback)) ++restored;
  }
  if (restored == 0) return {Status::DONE, process + " has ended, or others set its I/O priority meanwhile"};
  return {Status::DONE, "I/O priority of " + std::to_string(restored) + " threads of " + process + " -> " +
                            priorityText(fallback)};
}

}  // namespace service
