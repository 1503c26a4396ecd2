// One connection at work: requests go out, what comes back is shown, counted and waited for.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "tools/cli/ExitCode.h"
#include "tools/cli/Output.h"
#include "tools/client/Connection.h"

namespace cli {

/// How a request is made.
struct HowTo {
  int32_t tid = 0;                   // in the request's header
  std::optional<int64_t> timestamp;  // the same, nanoseconds; without one, the time of sending
  int64_t waitMs = 0;                // how long to stay and show what comes, at least
  int64_t answerWithinMs = 5000;     // above the three seconds after which the UDP transport gives up
  int64_t intervalMs = -1;           // between two requests; -1: the next one after the answer
  int repeat = 1;
  bool summary = false;  // show the times of all answers together
};

class Session {
 public:
  /// All three must outlive it. service: what messages call it.
  Session(client::Connection& connection, Output& output, std::string service)
      : m_connection(connection), m_output(output), m_service(std::move(service)) {}

  /// Makes a request as `how` says, and waits. Returns the exit code that its outcome stands for; why it is
  /// above 1 was said on standard error.
  ExitCode request(uint16_t funcid, const std::string& body, const HowTo& how);

  /// Shows what comes until the descriptor is readable. EXIT_ANSWERED then.
  ExitCode idle(int watched);

 private:
  enum class Condition { GOOD, LOST, BROKEN, GIVEN_UP };  // of the connection; only GOOD goes on

  void send(uint16_t funcid, const std::string& body, const HowTo& how);
  bool work(int64_t deadlineMs, int watched = -1);
  void stay(int64_t untilMs);
  void receive(const client::Reply& reply);
  bool finish(const HowTo& how);
  bool mayGoOn() const;
  void showProgress(int total);
  ExitCode exitCode() const;

  client::Connection& m_connection;
  Output& m_output;
  const std::string m_service;
  Condition m_condition = Condition::GOOD;

  // Of the request at hand:
  bool m_quiet = false;  // only its summary is shown
  Summary m_summary;
  std::multimap<std::pair<uint16_t, int64_t>, int64_t> m_open;  // funcid, time stamp: when sent, microseconds
  int64_t m_progressAt = 0;
};

}  // namespace cli
