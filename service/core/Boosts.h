// Boosts: what is set for whom and until when, and how it is put back.
//
// A boost is what one client was given by one request: a `Setting` (see there), how strong, until when.
// Several boosts, of one client or of many, may hold the same setting at once.
//
//   first boost of a setting   the original is remembered, then the setting is made
//   a further boost            the strongest boost rules
//   a boost ends               the strongest of the rest rules
//   the last boost ends        the original is put back
//
// A boost ends by its timeout, by the cancelling request, or with the connection of the client it belongs to.
// All of it belongs to the server's thread. Time is an argument: milliseconds of a clock that never steps.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "service/core/Log.h"
#include "service/core/Outcome.h"
#include "service/core/Setting.h"

namespace service {

constexpr int64_t kNoExpiry = INT64_MAX;

/// Bounds, so that no client makes the service's bookkeeping grow without end.
constexpr size_t kMaxBoostsPerHolder = 2048;
constexpr size_t kMaxBoosts = 16384;

enum class Part { CPU, IO, THREAD };

struct Boost {
  uint64_t holder = 0;  // the id of the client
  uint16_t funcid = 0;  // the request that gave it
  Part part = Part::CPU;
  int tid = 0;  // the thread that a THREAD part is about
  int strength = 1;
  int64_t expiresAt = kNoExpiry;  // milliseconds
};

class Boosts {
 public:
  /// The log must outlive the object.
  explicit Boosts(const Log& log) : m_log(log) {}
  ~Boosts() { endAll("the service ends"); }

  /// Makes the setting and keeps the boost, when the outcome is DONE or PARTLY. `setting` is dropped when an
  /// equal one is held already.
  Outcome add(const Boost& boost, std::unique_ptr<Setting> setting);

  /// Ends all boosts for which `ends` is true; one line each says what was put back, and `why`. Returns how
  /// many.
  size_t end(const std::function<bool(const Boost&)>& ends, const std::string& why);
  size_t endExpired(int64_t now);
  size_t endAll(const std::string& why);

  /// When the next boost expires, or kNoExpiry.
  int64_t nextExpiry() const;
  size_t size() const { return m_size; }

 private:
  struct Held {
    std::unique_ptr<Setting> setting;
    std::vector<Boost> boosts;  // at least one, but for moments within add() and end()
  };
  static int strongest(const Held& held);
  bool fits(uint64_t holder) const;
  void afterEnd(Held& held, const std::string& why);

  const Log& m_log;
  std::map<std::string, Held> m_held;      // by the setting's key
  std::map<uint64_t, size_t> m_perHolder;  // boosts per client that has any
  size_t m_size = 0;                       // boosts in all
};

}  // namespace service
