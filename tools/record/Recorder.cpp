#include "tools/record/Recorder.h"

#include <sys/epoll.h>

#include <ctime>

namespace record {

Recorder::Recorder(RecordingFile& file, std::function<void(const std::string&)> say)
    : m_file(file), m_say(std::move(say)) {}

bool Recorder::run(int end, const std::function<int()>& due) {
  if (!m_loop || m_loop.add(end, EPOLLIN, [this](uint32_t) { m_loop.stop(); }) == 0) return false;
  m_loop.run([&](bool nothingReady) {
    const bool waits = m_file.pending() > 0;
    if (waits && (nothingReady || m_file.pending() >= kFlushBytes)) {
      finish();
    } else if (waits) {
      return 0;  // whether something is ready
    }
    return due();
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
