// The service's voice: one line per event, written at once, so that `tarnbooster-service | tee log` is live.
#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <utility>

namespace service {

/// How much a line matters. The numbers are those of syslog and of systemd's journal.
enum class Priority { WARNING = 4, NOTICE = 5, INFO = 6, DEBUG = 7 };

/// Used by the server's thread only.
class Log {
 public:
  /// sink  takes each finished line, without its line end; must not wait
  using Sink = std::function<void(Priority, const std::string&)>;
  /// most  lines that matter less are not said
  Log(Priority most, Sink sink) : m_most(most), m_sink(std::move(sink)) {}

  /// What went wrong.
  void warning(const std::string& line) const { say(Priority::WARNING, line); }
  /// That the service is ready, and other things said even with --quiet.
  void notice(const std::string& line) const { say(Priority::NOTICE, line); }
  /// Requests, pushes, and boosts that ended.
  void info(const std::string& line) const { say(Priority::INFO, line); }
  /// The same of a line that is made only when it is said.
  template <class MakeLine>
  auto info(MakeLine makeLine) const -> std::enable_if_t<std::is_invocable_v<MakeLine>> {
    if (Priority::INFO <= m_most) m_sink(Priority::INFO, makeLine());
  }
  /// Connections that come and go.
  void debug(const std::string& line) const { say(Priority::DEBUG, line); }

 private:
  void say(Priority priority, const std::string& line) const {
    if (priority <= m_most) m_sink(priority, line);
  }

  const Priority m_most;
  const Sink m_sink;
};

}  // namespace service
