#include "service/core/LineWriter.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace service {

LineStyle lineStyleFor(int fd) {
  const char* const stream = getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  struct stat status {};
  if (stream == nullptr || fstat(fd, &status) != 0) return LineStyle::TIME;
  return fmt::format("{}:{}", status.st_dev, status.st_ino) == stream ? LineStyle::JOURNAL : LineStyle::TIME;
}

std::string styledLine(LineStyle style, Priority priority, const std::string& line) {
  if (style == LineStyle::PLAIN) return line + "\n";
  if (style == LineStyle::JOURNAL) return fmt::format("<{}>{}\n", static_cast<int>(priority), line);
  const auto now = std::chrono::system_clock::now();
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  const char* const word = priority == Priority::WARNING ? "warning: "
                           : priority == Priority::DEBUG ? "debug: "
                                                         : "";
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03} {}{}\n",
                     fmt::localtime(std::chrono::system_clock::to_time_t(now)), ms, word, line);
}

struct LineWriter::Shared {
  Shared(int descriptor, LineStyle lineStyle) : fd(descriptor), style(lineStyle) {}
  const int fd;
  const LineStyle style;
  std::mutex lock;
  std::condition_variable changed;
  std::string waiting;     // guarded by lock
  size_t dropped = 0;      // lines; guarded by lock
  bool writing = false;    // a write is under way; guarded by lock
  bool ending = false;     // guarded by lock
  bool abandoned = false;  // the object has gone: nothing may be written any more; guarded by lock
};

LineWriter::LineWriter(int fd, LineStyle style) : m_shared(std::make_shared<Shared>(fd, style)) {
  std::thread([shared = m_shared] { write(shared); }).detach();
}

LineWriter::~LineWriter() {
  std::unique_lock<std::mutex> lock(m_shared->lock);
  m_shared->ending = true;
  m_shared->changed.notify_all();
  m_shared->changed.wait_for(lock, std::chrono::seconds(1),
                             [this] { return m_shared->waiting.empty() && !m_shared->writing; });
  m_shared->abandoned = true;
}

void LineWriter::put(Priority priority, const std::string& line) {
  const std::string styled = styledLine(m_shared->style, priority, line);
  const std::lock_guard<std::mutex> lock(m_shared->lock);
  if (m_shared->waiting.size() + styled.size() > kMaxWaitingLines) {
    ++m_shared->dropped;
    return;
  }
  m_shared->waiting += styled;
  m_shared->changed.notify_all();
}

void LineWriter::write(const std::shared_ptr<Shared>& shared) {
  std::unique_lock<std::mutex> lock(shared->lock);
  while (true) {
    shared->changed.wait(lock, [&] { return !shared->waiting.empty() || shared->ending; });
    if (shared->waiting.empty() || shared->abandoned) return;
    std::string lines = std::exchange(shared->waiting, "");
    if (shared->dropped > 0) {  // they came behind all that waited
      lines += styledLine(shared->style, Priority::WARNING,
                          fmt::format("{} lines were lost: whoever reads them is too slow",
                                      std::exchange(shared->dropped, 0)));
    }
    shared->writing = true;
    lock.unlock();
    for (size_t done = 0; done < lines.size();) {
      const ssize_t count = ::write(shared->fd, lines.data() + done, lines.size() - done);
      if (count < 0 && errno == EAGAIN) {  // somebody has made it non-blocking for all who share it
        pollfd room{shared->fd, POLLOUT, 0};
        poll(&room, 1, -1);
        continue;
      }
      if (count < 0 && errno != EINTR) break;  // nobody reads any more
      if (count > 0) done += static_cast<size_t>(count);
    }
    lock.lock();
    shared->writing = false;
    shared->changed.notify_all();
  }
}

}  // namespace service
