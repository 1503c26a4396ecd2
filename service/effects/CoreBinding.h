// 1004, 1013: the CPU affinity of one thread.
//
// The rule: a boosted thread is bound to the highest-numbered CPU among those it was allowed before (on many
// phones the fast cores have the high numbers, and a desktop shows the effect just as well). Scene, level and
// action make no difference. A thread that was allowed one CPU only stays there, and the service says so.
#pragma once

#include <sched.h>

#include <memory>

#include "service/core/Setting.h"
#include "service/effects/Process.h"

namespace service {

class CoreBinding : public Setting {
 public:
  /// tid    a thread of `process`
  /// start  its start: the thread is touched only while tid is still that thread
  CoreBinding(std::shared_ptr<const Process> process, pid_t tid, uint64_t start);

  /// Of a record(). Null when it is none, or the thread has ended.
  static std::unique_ptr<Setting> ofRecord(const nlohmann::json& record);

  std::string key() const override;
  Outcome prepare(int strength) override;
  Outcome apply(int strength) override;
  /// Threads that the bound thread started meanwhile inherited its binding; those keep it.
  Outcome restore() override;
  nlohmann::json record() const override;

 private:
  Outcome look(cpu_set_t& cpus) const;

  const std::shared_ptr<const Process> m_process;
  const pid_t m_tid;
  const uint64_t m_start;
  bool m_known = false;  // whether the two below are set
  cpu_set_t m_original{};
  cpu_set_t m_applied{};
};

}  // namespace service
