// The service's clock.
#pragma once

#include <chrono>
#include <cstdint>

namespace service {

/// Milliseconds of a clock that never steps: boosts must not end early because somebody set the time.
inline int64_t steadyMs() {
  using std::chrono::steady_clock;
  return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace service
