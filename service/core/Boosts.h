// Boosts: what is set for whom and until when, and how it is put back.
//
// A boost is what one client was given by one request: a `Setting` (see there), how strong, until when.
// Several boosts, of one client or of many, may hold the same setting at once.
//
//   first boost of a setting   the original is remembered, then the setting is made
//   a further boost            the strongest boost rules
//   a boost ends               the strongest of the rest rules
//   the last boost ends        the original is put back
//   one of these two fails for a want that passes (no descriptor is left)
//                              the setting is kept, and tried again every second
//
// A boost ends by its timeout, by the cancelling request, or with the connection of the client it belongs to.
// All of it belongs to the server's thread. Time is an argument: milliseconds of a clock that never steps.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "service/core/Log.h"
#include "service/core/Outcome.h"
#include "service/core/Record.h"
#include "service/core/Setting.h"

namespace service {

constexpr int64_t kNoExpiry = INT64_MAX;

/// How long a setting that could not be put back is left before the next try, in milliseconds.
constexpr int64_t kRestoreAgainMs = 1000;

/// Bounds, so that neither a client nor a user makes the bookkeeping grow without end, or takes it all.
struct BoostLimits {
  size_t perHolder = 2048;
  size_t perUser = 4096;
  size_t inAll = 16384;
};

enum class Part { CPU, IO, THREAD };

struct Boost {
  uint64_t holder = 0;  // the id of the client
  uint32_t user = 0;    // whose client it is
  uint16_t funcid = 0;  // the request that gave it
  Part part = Part::CPU;
  int tid = 0;  // the thread that a THREAD part is about
  int strength = 1;
  int64_t expiresAt = kNoExpiry;  // milliseconds
};

class Boosts {
 public:
  /// The log and the record (null: none is kept) must outlive the object.
  explicit Boosts(const Log& log, const BoostLimits& limits = {}, Record* record = nullptr)
      : m_log(log), m_limits(limits), m_record(record) {}
  ~Boosts() { endAll("the service ends"); }

  /// Makes the setting and keeps the boost, when the outcome is DONE or PARTLY. `setting` is dropped when an
  /// equal one is held already.
  Outcome add(const Boost& boost, std::unique_ptr<Setting> setting);

  /// Takes over a setting that a service before this one has left set, and puts it back.
  void putBack(std::unique_ptr<Setting> setting, int64_t now);

  /// Ends those boosts of the holder for which `ends` is true; one line for each setting says what was put
  /// back, and `why`. Returns how many.
  size_t end(uint64_t holder, const std::function<bool(const Boost&)>& ends, const std::string& why,
             int64_t now);
  size_t endExpired(int64_t now);
  /// Of all holders. What cannot be put back even after some more tries stays in the record.
  size_t endAll(const std::string& why);

  /// When endExpired() has something to do, or kNoExpiry.
  int64_t nextExpiry() const;
  size_t size() const { return m_boosts.size(); }
  bool holds(uint64_t holder) const { return m_perHolder.count(holder) != 0; }
  /// Counts up with every change of what is held.
  uint64_t changes() const { return m_changes; }

  /// Every setting that is held, with its boosts (none: it waits to be put back).
  void forEach(const std::function<void(const Setting&, const std::vector<Boost>&)>& visit) const;

 private:
  struct Held {
    std::unique_ptr<Setting> setting;
    std::set<uint64_t> boosts;     // serials
    std::multiset<int> strengths;  // of these boosts
    int64_t again = 0;             // of one in m_again: when to try again
  };
  using HeldMap = std::map<std::string, Held>;  // by the setting's key
  struct Entry {
    Boost boost;
    HeldMap::iterator held;
  };
  using Order = std::set<std::pair<uint64_t, uint64_t>>;  // something, then the serial

  bool fits(const Boost& boost) const;
  Outcome set(Held& held, int strength);
  void insert(const Boost& boost, HeldMap::iterator held);
  void erase(uint64_t serial);
  size_t end(const std::vector<uint64_t>& serials, const std::string& why, int64_t now);
  void afterEnd(HeldMap::iterator held, const std::string& why, int64_t now);

  const Log& m_log;
  const BoostLimits m_limits;
  Record* const m_record;
  HeldMap m_held;
  std::map<uint64_t, Entry> m_boosts;  // by serial
  Order m_byHolder;
  Order m_byExpiry;                        // only those that expire
  std::map<uint64_t, size_t> m_perHolder;  // boosts per client that has any
  std::map<uint32_t, size_t> m_perUser;
  std::set<std::string> m_again;  // keys of settings that wait to be put back, or made weaker
  uint64_t m_lastSerial = 0;
  uint64_t m_changes = 0;
};

}  // namespace service
