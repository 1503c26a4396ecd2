#include "tools/record/Recorder.h"

#include <sys/epoll.h>

#include <algorithm>
#include <ctime>

#include "base/clock.h"

namespace record {

Recorder::Recorder(RecordingFile& file, std::function<void(const std::string&)> say)
    : m_file(file), m_say(std::move(say)) {}

bool Recorder::run(int end, const std::function<int()>& due) {
  if (!m_loop || m_loop.add(end, EPOLLIN, [this](uint32_t) { m_loop.stop(); }) == 0) return false;
  m_loop.run([&] {
    int waitMs = due();
    if (m_file.pending() == 0) return waitMs;
    const int64_t now = nowMs();
    if (m_flushAt == 0) m_flushAt = now + kFlushMs;
    if (m_file.pending() >= kFlushBytes || now >= m_flushAt || m_flushAt - now > kFlushMs) {
      finish();
      m_flushAt = 0;
      return waitMs;
    }
    const int flushMs = static_cast<int>(m_flushAt - now);
    return waitMs < 0 ? flushMs : std::min(waitMs, flushMs);
  });
  return true;
}

void Recorder::finish() {
  std::string problem;
  if (!m_file.flush(problem)) m_say(problem + "; what passes from now on is not recorded");
}

int64_t nowNs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

}  // namespace record
