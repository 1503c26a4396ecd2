// One thing outside this program that boosts change: one thread's CPU affinity, one process's I/O priority,
// the machine's lowest CPU frequency.
#pragma once

#include <string>

#include "service/core/Outcome.h"

namespace service {

/// The object is made before anything is changed and remembers the original.
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

}  // namespace service
