// The one place where the library reads the clock: the wall clock, in two units.
#pragma once

#include <cstdint>

/// Microseconds since the epoch (gettimeofday seconds × 1,000,000 + microseconds).
int64_t nowUs();

/// Milliseconds since the epoch (gettimeofday seconds × 1000 + microseconds ÷ 1000). The wall clock may step:
/// reconnect throttling and the UDP timers follow it, as designed.
int64_t nowMs();
