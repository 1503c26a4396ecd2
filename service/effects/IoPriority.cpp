#include "service/effects/IoPriority.h"

#include <fmt/format.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "service/effects/RecordFields.h"

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

/// 0, or an errno value.
int setIoPriority(pid_t tid, int value) {
  return syscall(SYS_ioprio_set, kWhoProcess, tid, value) == 0 ? 0 : errno;
}

int boostedPriority(int strength) {
  return kClassBestEffort << kClassShift | (kStrongest - std::min(strength, kStrongest));
}

std::string priorityText(int value) {
  static const char* const kClasses[] = {"none", "realtime", "best-effort", "idle"};
  const int kind = value >> kClassShift & kClassMask;
  return kind > 3 ? std::to_string(value) : fmt::format("{}/{}", kClasses[kind], value & 7);
}

/// A thread that runs with realtime priority has more than this boost would give.
bool isRealtime(int priority) {
  return priority >> kClassShift == kClassRealtime;
}

}  // namespace

IoPriority::IoPriority(std::shared_ptr<const Process> process)
    : m_process(std::move(process)), m_start(m_process->thread(m_process->pid()).start) {}

std::unique_ptr<Setting> IoPriority::ofRecord(const nlohmann::json& record) {
  auto process = Process::ofNumber(static_cast<pid_t>(numberIn(record, "pid")));
  if (process == nullptr) return nullptr;
  auto priority = std::make_unique<IoPriority>(std::move(process));
  if (static_cast<int64_t>(priority->m_start) != numberIn(record, "started")) return nullptr;
  for (const nlohmann::json& entry : listIn(record, "threads")) {
    priority->m_threads[static_cast<pid_t>(numberIn(entry, "tid"))] = {
        static_cast<uint64_t>(numberIn(entry, "started")), static_cast<int>(numberIn(entry, "original"))};
  }
  priority->m_applied = static_cast<int>(numberIn(record, "applied"));
  priority->m_wanted = static_cast<int>(numberIn(record, "wanted"));
  return priority->m_applied >= 0 ? std::move(priority) : nullptr;
}

nlohmann::json IoPriority::record() const {
  nlohmann::json threads = nlohmann::json::array();
  for (const auto& [tid, thread] : m_threads) {
    threads.push_back({{"tid", tid}, {"started", thread.start}, {"original", thread.original}});
  }
  nlohmann::json record = {
      {"what", "io"}, {"pid", m_process->pid()}, {"started", m_start}, {"threads", std::move(threads)}};
  addApplied(record, m_applied >= 0 ? m_applied : m_wanted, m_wanted);
  return record;
}

std::string IoPriority::key() const {
  return fmt::format("I/O priority of {} started {}", m_process->pid(), m_start);
}

bool IoPriority::isKnown(pid_t tid, const ThreadLook& look) const {
  const auto known = m_threads.find(tid);
  return known != m_threads.end() && look.isThread(known->second.start);
}

Outcome IoPriority::prepare(int strength) {
  m_wanted = boostedPriority(strength);
  std::vector<pid_t> tids;
  const int error = m_process->threads(kMaxThreads, tids);
  if (error != 0) return failure(fmt::format("I/O priority of process {}", m_process->pid()), error);
  for (const pid_t tid : tids) {
    const ThreadLook look = m_process->thread(tid);
    const int now = ioPriority(tid);
    // Born boosted: its own original is not known, restore() treats it so.
    if (now < 0 || !look.isThere() || isRealtime(now) || isKnown(tid, look) || now == m_applied) continue;
    m_threads[tid] = {look.start, now};
  }
  return {};
}

Outcome IoPriority::apply(int /*strength*/) {
  std::vector<pid_t> tids;
  int error = m_process->threads(kMaxThreads, tids);
  if (error == 0) error = ESRCH;  // what is wrong with a process without threads
  int kept = 0;
  for (const pid_t tid : tids) {
    const int now = ioPriority(tid);
    // One born since prepare() waits for the next time.
    if (now < 0 || isRealtime(now) || (now != m_applied && !isKnown(tid, m_process->thread(tid)))) continue;
    const int refused = setIoPriority(tid, m_wanted);
    if (refused == 0) ++kept;
    if (refused != 0) error = refused;
  }
  const std::string process = fmt::format("process {}", m_process->pid());
  if (kept == 0) {
    if (error == ENOSYS) return {Status::NOT_AVAILABLE, "this system has no I/O priorities"};
    return failure("I/O priority of " + process, error);
  }
  m_applied = m_wanted;
  return {Status::DONE,
          fmt::format("I/O priority of {} threads of {} -> {}", kept, process, priorityText(m_wanted))};
}

Outcome IoPriority::restore() {
  const std::string process = fmt::format("process {}", m_process->pid());
  const auto first = m_threads.find(m_process->pid());
  const int fallback = first != m_threads.end() ? first->second.original : 0;
  std::vector<pid_t> tids;
  const int error = m_process->threads(kMaxThreads, tids);
  if (error != 0 && error != ESRCH) return failure("I/O priority of " + process, error);
  int restored = 0;
  Outcome unclear;
  for (const pid_t tid : tids) {
    const int now = ioPriority(tid);
    if (now < 0 || !isOurs(now)) continue;  // has ended, or was changed by others
    const ThreadLook look = m_process->thread(tid);
    if (look.state == ThreadLook::State::UNCLEAR) unclear = failure("I/O priority of " + process, look.error);
    if (!look.isThere()) continue;
    if (setIoPriority(tid, isKnown(tid, look) ? m_threads[tid].original : fallback) == 0) ++restored;
  }
  if (unclear.status != Status::DONE) return unclear;
  if (restored == 0) return {Status::DONE, process + " has ended, or others set its I/O priority meanwhile"};
  return {Status::DONE,
          fmt::format("I/O priority of {} threads of {} -> {}", restored, process, priorityText(fallback))};
}

}  // namespace service
