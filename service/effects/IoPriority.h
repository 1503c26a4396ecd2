// 1006, 1013: the I/O priority of all threads of one process.
//
// The rule: level 1, 2 and 3 (and above) give best-effort priority 2, 1 and 0, the highest without privilege.
// Which disks heed it depends on the machine's I/O scheduler.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "service/core/Setting.h"
#include "service/effects/Process.h"

namespace service {

class IoPriority : public Setting {
 public:
  explicit IoPriority(std::shared_ptr<const Process> process);

  /// Of a record(). Null when it is none, or the process has ended.
  static std::unique_ptr<Setting> ofRecord(const nlohmann::json& record);

  std::string key() const override;
  Outcome prepare(int strength) override;
  Outcome apply(int strength) override;
  /// A thread born during the boost inherited its priority from a boosted one; it gets what the process's
  /// first thread had.
  Outcome restore() override;
  nlohmann::json record() const override;

 private:
  struct Thread {
    uint64_t start;  // of ThreadLook
    int original;    // I/O priority value
  };
  bool isKnown(pid_t tid, const ThreadLook& look) const;
  bool isOurs(int priority) const { return priority == m_applied || priority == m_wanted; }

  const std::shared_ptr<const Process> m_process;
  uint64_t m_start;                   // of the process's first thread
  std::map<pid_t, Thread> m_threads;  // those that were boosted
  int m_wanted = -1;                  // I/O priority value of the last prepare()
  int m_applied = -1;                 // that of the last apply(); -1 before the first
};

}  // namespace service
