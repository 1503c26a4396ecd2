// The service's voice: one line per event, flushed at once, so that `tarnbooster-service | tee log` is live.
#pragma once

#include <functional>
#include <string>
#include <utility>

namespace service {

enum class Verbosity { QUIET, NORMAL, VERBOSE };

/// Used by the server's thread only.
class Log {
 public:
  /// sink  takes each finished line, without its line end
  using Sink = std::function<void(const std::string&)>;
  Log(Verbosity verbosity, Sink sink) : m_verbosity(verbosity), m_sink(std::move(sink)) {}

  /// What is said even with --quiet: that the service is ready, and what went wrong.
  void always(const std::string& line) const { m_sink(line); }
  /// Requests, pushes, and boosts that ended.
  void event(const std::string& line) const {
    if (m_verbosity != Verbosity::QUIET) m_sink(line);
  }
  /// Connections that come and go.
  void detail(const std::string& line) const {
    if (m_verbosity == Verbosity::VERBOSE) m_sink(line);
  }

 private:
  const Verbosity m_verbosity;
  const Sink m_sink;
};

/// The sink of the program: standard output, flushed after every line.
Log::Sink standardOutput();

}  // namespace service
