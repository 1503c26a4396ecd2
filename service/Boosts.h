// Boosts: what is set for whom and until when, and how it is put back.
//
// A `Setting` is one thing outside this program that a boost changes: one thread's CPU affinity, one
// process's I/O priority, the machine's lowest CPU frequency. Several boosts may want the same setting at
// once, from one peer or from many. Each wish is a `Hold`: who, by which request, how strong, until when.
//
//   first hold of a setting    the original is remembered, then the setting is made
//   a further hold             the strongest hold rules
//   a hold ends                the strongest of the rest rules
//   the last hold ends         the original is put back
//
// A hold ends by its timeout, by the cancelling request, or with the connection of the peer it belongs to.
// All of it belongs to the server's thread. Time is an argument: milliseconds of a clock that never steps.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Journal.h"
#include "Status.h"

namespace service {

/// One thing that boosts change. The object is made before anything is changed and remembers the original.
class Setting {
 public:
  virtual ~Setting() = default;
  /// Names the setting: two objects with the same key stand for the same thing.
  virtual std::string key() const = 0;
  /// Sets it, `strength` from 1 up. May be called again with another strength. A setting of which only some
  /// could be made answers PARTLY and is held; after any other status nothing is changed.
  virtual Outcome apply(int strength) = 0;
  /// Puts the original back, unless somebody else has changed the setting meanwhile: then it is left alone.
  virtual Outcome restore() = 0;
};

constexpr int64_t kNoExpiry = INT64_MAX;

/// Bounds, so that no client makes the service's bookkeeping grow without end.
constexpr size_t kMaxHoldsPerPeer = 2048;
constexpr size_t kMaxHolds = 16384;

enum class Part { CPU, IO, THREAD };

/// A wish for a setting.
struct Hold {
  uint64_t peerId = 0;
  uint16_t funcid = 0;  // the request that made it
  Part part = Part::CPU;
  int tid = 0;  // the thread that a THREAD part is about
  int strength = 1;
  int64_t expiresAt = kNoExpiry;  // milliseconds
};

class Boosts {
 public:
  explicit Boosts(const Journal& journal) : m_journal(journal) {}
  ~Boosts() { endAll("the service ends"); }

  /// Adds a hold. `setting` is dropped when an equal one is held already. The hold is kept when the outcome
  /// is DONE or PARTLY.
  Outcome hold(const Hold& wish, std::unique_ptr<Setting> setting);

  /// Ends all holds for which `ends` is true; one line each says what was put back, and `why`. Returns how
  /// many.
  size_t end(const std::function<bool(const Hold&)>& ends, const std::string& why);
  size_t endExpired(int64_t now);
  size_t endAll(const std::string& why);

  /// When the next hold expires, or kNoExpiry.
  int64_t nextExpiry() const;
  size_t size() const { return m_size; }

 private:
  struct Held {
    std::unique_ptr<Setting> setting;
    std::vector<Hold> holds;  // at least one, but for moments within hold() and end()
  };
  static int strongest(const Held& held);
  bool fits(uint64_t peerId) const;
  void afterEnd(Held& held, const std::string& why);

  const Journal& m_journal;
  std::map<std::string, Held> m_held;    // by the setting's key
  std::map<uint64_t, size_t> m_perPeer;  // holds per peer that has any
  size_t m_size = 0;                     // holds in all
};

}  // namespace service
