// Scripted misbehaviour, for developers of applications: what a service may do wrong, on demand.
//
// A fault is written
// NAME[=VALUE][,every=N][,after=N][,only=FUNCID][,from=MS][,for=MS][,chance=PERCENT][,seed=S]:
//   every=N         strikes only the Nth, 2Nth ... time that it could (default 1)
//   after=N         not the first N times
//   only=FUNCID     only at requests with this identifier
//   from=MS for=MS  only from so long after the service's start, and for so long
//   chance=PERCENT  and then only with this probability, by a generator that starts at `seed` (default 1)
// Times are counted for each client by itself; at `refuse` and `no-accept` they are connections, else
// requests.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace service {

enum class FaultKind {
  DELAY,
  NO_ANSWER,
  TWICE,
  SWAP,
  WRONG_TIMESTAMP,
  WRONG_FUNCID,
  TWO_BODIES,
  GARBAGE,
  BAD_MAGIC,
  CUT_HEADER,
  HUGE_LENGTH,
  CLOSE,
  HALF_CLOSE,
  STOP_READING,
  LOSE_SPLIT,
  LOSE_COALESCED,
  KEEP_BOOSTS,
  NO_PUSH,
  REFUSE,
  NO_ACCEPT,
  UDP_LOSE,
  UDP_DUPLICATE,
};

struct Fault {
  FaultKind kind = FaultKind::DELAY;
  int64_t value = 0;
  int64_t every = 1;
  int64_t after = 0;
  int64_t only = -1;  // any
  int64_t fromMs = 0;
  int64_t forMs = INT64_MAX;
  int64_t chance = 100;
  int64_t seed = 1;
};

/// Reads one. False, with the problem named, when it is none.
bool parseFault(const std::string& text, Fault& fault, std::string& problem);

/// One line for each fault, for the help.
std::string faultHelp();

class Faults {
 public:
  Faults() = default;
  /// startedAt  milliseconds of the clock that strikes() is given
  Faults(const std::vector<Fault>& faults, int64_t startedAt);

  bool isEmpty() const { return m_faults.empty(); }

  /// Whether a fault of this kind strikes now; counts the time. value: is set to its own
  bool strikes(FaultKind kind, uint64_t client, int64_t funcid, int64_t now, int64_t& value);
  bool strikes(FaultKind kind, uint64_t client, int64_t funcid, int64_t now) {
    int64_t value = 0;
    return !isEmpty() && strikes(kind, client, funcid, now, value);
  }

  /// Whether there is a fault of this kind that may strike at this time; counts nothing.
  bool isDue(FaultKind kind, int64_t now) const;

  void forget(uint64_t client);
  std::string noise(size_t count);

 private:
  struct Entry {
    Fault fault;
    std::mt19937_64 random;
    std::map<uint64_t, int64_t> times;  // by client
  };
  bool isTime(const Fault& fault, int64_t now) const;

  std::vector<Entry> m_faults;
  std::mt19937_64 m_noise;
  int64_t m_startedAt = 0;
};

}  // namespace service
