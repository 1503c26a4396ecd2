#include "service/effects/CoreBinding.h"

#include <fmt/format.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "service/effects/RecordFields.h"
#include "shared/Text.h"

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
    text += fmt::format(cpu > first ? "{}{}-{}" : "{}{}", text.empty() ? "" : ",", first, cpu);
  }
  return text;
}

/// The other way round. False when it is no such list.
bool parseCpuList(std::string_view text, cpu_set_t& cpus) {
  CPU_ZERO(&cpus);
  while (!text.empty()) {
    const std::string_view range = text.substr(0, text.find(','));
    const size_t dash = range.find('-');
    int64_t first = 0, last = 0;
    if (!shared::parseNumber(range.substr(0, dash), 0, CPU_SETSIZE - 1, first)) return false;
    last = first;
    if (dash != std::string_view::npos &&
        !shared::parseNumber(range.substr(dash + 1), first, CPU_SETSIZE - 1, last)) {
      return false;
    }
    for (int64_t cpu = first; cpu <= last; ++cpu) CPU_SET(static_cast<size_t>(cpu), &cpus);
    text.remove_prefix(std::min(text.size(), range.size() + 1));
  }
  return CPU_COUNT(&cpus) > 0;
}

}  // namespace

CoreBinding::CoreBinding(std::shared_ptr<const Process> process, pid_t tid, uint64_t start)
    : m_process(std::move(process)), m_tid(tid), m_start(start) {}

std::unique_ptr<Setting> CoreBinding::ofRecord(const nlohmann::json& record) {
  auto process = Process::ofNumber(static_cast<pid_t>(numberIn(record, "pid")));
  if (process == nullptr) return nullptr;
  auto binding =
      std::make_unique<CoreBinding>(std::move(process), static_cast<pid_t>(numberIn(record, "tid")),
                                    static_cast<uint64_t>(numberIn(record, "started")));
  binding->m_known = parseCpuList(textIn(record, "original"), binding->m_original) &&
                     parseCpuList(textIn(record, "applied"), binding->m_applied);
  return binding->m_known ? std::move(binding) : nullptr;
}

nlohmann::json CoreBinding::record() const {
  return {{"what", "affinity"},
          {"pid", m_process->pid()},
          {"tid", m_tid},
          {"started", m_start},
          {"original", cpuListText(m_original)},
          {"applied", cpuListText(m_applied)}};
}

std::string CoreBinding::key() const {
  return fmt::format("affinity of {} started {}", m_tid, m_start);
}

/// The CPUs that the thread may run on now. Its status is NOT_YOURS when the thread has ended.
Outcome CoreBinding::look(cpu_set_t& cpus) const {
  const std::string thread = fmt::format("thread {}", m_tid);
  const ThreadLook look = m_process->thread(m_tid);
  if (look.state == ThreadLook::State::UNCLEAR) return failure("looking at " + thread, look.error);
  if (!look.isThread(m_start)) return {Status::NOT_YOURS, thread + " has ended"};
  if (sched_getaffinity(m_tid, sizeof(cpus), &cpus) == 0) return {};
  if (errno == ESRCH) return {Status::NOT_YOURS, thread + " has ended"};
  return failure("the CPUs of " + thread, errno);
}

Outcome CoreBinding::prepare(int /*strength*/) {
  cpu_set_t now{};
  Outcome outcome = look(now);
  if (outcome.status != Status::DONE || m_known) return outcome;
  m_original = now;
  CPU_ZERO(&m_applied);
  CPU_SET(static_cast<size_t>(highestCpu(now)), &m_applied);
  m_known = true;
  return outcome;
}

Outcome CoreBinding::apply(int /*strength*/) {
  const std::string thread = fmt::format("thread {}", m_tid), bound = cpuListText(m_applied);
  cpu_set_t now{};
  Outcome outcome = look(now);
  if (outcome.status != Status::DONE) return outcome;
  if (CPU_COUNT(&m_original) == 1 && CPU_EQUAL(&now, &m_applied)) {
    return {Status::DONE, fmt::format("{} may run on CPU {} only, and stays there", thread, bound)};
  }
  if (CPU_EQUAL(&now, &m_applied)) return {Status::DONE, fmt::format("{} stays on CPU {}", thread, bound)};
  if (sched_setaffinity(m_tid, sizeof(m_applied), &m_applied) != 0) {
    return failure("binding " + thread, errno);
  }
  return {Status::DONE, fmt::format("{} CPUs {} -> {}", thread, cpuListText(m_original), bound)};
}

Outcome CoreBinding::restore() {
  const std::string thread = fmt::format("thread {}", m_tid);
  cpu_set_t now{};
  Outcome outcome = look(now);
  if (outcome.status == Status::NOT_YOURS) return {Status::DONE, outcome.text};
  if (outcome.status != Status::DONE) return outcome;
  if (!CPU_EQUAL(&now, &m_applied)) {
    return {Status::DONE,
            fmt::format("{} was moved to CPUs {} by others, left so", thread, cpuListText(now))};
  }
  if (sched_setaffinity(m_tid, sizeof(m_original), &m_original) != 0) {
    return failure("putting " + thread + " back", errno);
  }
  return {Status::DONE, fmt::format("{} CPUs {} -> {}", thread, cpuListText(now), cpuListText(m_original))};
}

}  // namespace service
