#include "base/clock.h"

#include <sys/time.h>

int64_t nowUs() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

int64_t nowMs() {
  return nowUs() / 1000;
}
