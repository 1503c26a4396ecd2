// The service's voice: one line per event, flushed at once, so that `tarnbooster-service | tee log` is live.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "Peer.h"
#include "Reply.h"
#include "Requests.h"
#include "Status.h"

namespace service {

enum class Verbosity { Quiet, Normal, Verbose };

/// Used by the server's thread only.
class Journal {
 public:
  /// sink  takes each finished line, without its line end
  using Sink = std::function<void(const std::string&)>;
  Journal(Verbosity verbosity, Sink sink) : m_verbosity(verbosity), m_sink(std::move(sink)) {}

  /// What is said even with --quiet: that the service is ready, and what went wrong.
  void always(const std::string& line) const { m_sink(line); }
  /// Requests, pushes, and boosts that ended.
  void event(const std::string& line) const {
    if (m_verbosity != Verbosity::Quiet) m_sink(line);
  }
  /// Connections that come and go.
  void detail(const std::string& line) const {
    if (m_verbosity == Verbosity::Verbose) m_sink(line);
  }

 private:
  const Verbosity m_verbosity;
  const Sink m_sink;
};

/// "1002 requestCpuHighFreq pid=12 uid=0 tid=13 scene=3 ... -> status 0 (what was done)"
std::string requestLine(const Request& request, const Peer& peer, const Outcome& outcome);
/// "push to pid=12 uid=0 code=7 data="text""
std::string pushLine(const Peer& peer, const Push& push);

/// The sink of the program: standard output, flushed after every line.
Journal::Sink standardOutput();

}  // namespace service
