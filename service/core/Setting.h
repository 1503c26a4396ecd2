// One thing outside this program that boosts change: one thread's CPU affinity, one process's I/O priority,
// the machine's lowest CPU frequency.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "service/core/Outcome.h"

namespace service {

class Setting {
 public:
  virtual ~Setting() = default;
  /// Names the setting: two objects with the same key stand for the same thing.
  virtual std::string key() const = 0;

  /// Looks at what apply() would change and remembers the originals; changes nothing. Called before every
  /// apply(), with the same strength.
  virtual Outcome prepare(int strength) = 0;
  /// Sets it, `strength` from 1 up. May be called again with another strength. A setting of which only some
  /// could be made answers PARTLY and is held; after any other status nothing is changed.
  virtual Outcome apply(int strength) = 0;
  /// Puts the originals back, unless somebody else has changed the setting meanwhile: then it is left alone.
  /// When the outcome says `tryAgain`, some of it is still to be put back.
  virtual Outcome restore() = 0;

  /// All that restore() needs, as a JSON object: what was found, and what was set. settingOfRecord() makes a
  /// setting of it again.
  virtual nlohmann::json record() const = 0;
};

}  // namespace service
