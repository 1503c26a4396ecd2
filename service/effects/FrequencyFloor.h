// 1002, 1013: the lowest frequency that the CPUs may fall to (cpufreq's scaling_min_freq).
//
// The rule: level 1, 2 and 3 (and above) raise it to one third, two thirds and the whole of the way from
// cpuinfo_min_freq to scaling_max_freq, on every CPU; it is never lowered.
//
// A scaling_max_freq that is lowered meanwhile (a thermal cap) takes the floor down with it: a floor that
// stands at a cap below what was set is still ours.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "service/core/Setting.h"

namespace service {

class FrequencyFloor : public Setting {
 public:
  /// sysRoot  where /sys is; tests bring their own
  explicit FrequencyFloor(const std::string& sysRoot);

  /// Of a record(). Null when it is none.
  static std::unique_ptr<Setting> ofRecord(const nlohmann::json& record, const std::string& sysRoot);

  std::string key() const override { return "lowest CPU frequency"; }
  Outcome prepare(int strength) override;
  Outcome apply(int strength) override;
  Outcome restore() override;
  nlohmann::json record() const override;

 private:
  /// All CPUs are read before any is written: CPUs of one cluster share one file under several names.
  struct Cpu {
    int number;
    int64_t original;  // all in kHz
    int64_t least;
    int64_t most;
    int64_t applied;  // as read back: the kernel rounds; 0 while nothing was written
    int64_t wanted;   // by the last prepare(); the same as `applied` once that is done
    bool isOurs;      // restore()'s note: the floor still is what was set
  };
  FrequencyFloor() = default;
  std::string folder(const Cpu& cpu) const;

  std::string m_cpuRoot;
  std::vector<Cpu> m_cpus;
};

}  // namespace service
