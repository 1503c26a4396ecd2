// A client's connection to a service: requests out, replies in, and word when the service has gone. For the
// tool, the checker, replays and tests; an application uses the library.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tools/client/Packet.h"
#include "tools/client/Target.h"

namespace client {

/// Milliseconds of a clock that never steps: for deadlines.
int64_t steadyMs();
/// The same in microseconds.
int64_t steadyUs();

/// What has happened on a connection.
enum class Event {
  REPLY,        // a reply or push is there
  CLOSED,       // the service has closed the connection: the last event but time-outs
  BROKEN,       // what came is no reply, problem() says why; on a local socket nothing more can be read
  GIVEN_UP,     // UDP: a datagram was sent six times and not acknowledged; later ones may never leave
  WATCHED,      // the watched descriptor is readable, or at its end
  INTERRUPTED,  // a signal was caught
  TIME_OUT,     // the deadline has passed
};

/// One connection. Used by one thread at a time. Nothing here waits but next().
class Connection {
 public:
  virtual ~Connection() = default;

  /// Sends one whole packet; what cannot leave at once leaves during next(). (Local socket: any bytes.)
  virtual void send(std::string_view packet) = 0;

  /// Bytes (UDP: messages) given to send() that have not left.
  virtual size_t unsent() const = 0;

  /// Sends and receives until there is an event, at most until `deadlineMs` (steadyMs(); one in the past
  /// takes what is there).
  /// reply    filled in by REPLY alone
  /// watched  a descriptor to wait for as well, -1 for none
  virtual Event next(Reply& reply, int64_t deadlineMs, int watched = -1) = 0;

  /// Readable when next() may have an event, for whoever waits for several connections at once. While
  /// unsent() is not 0, next() is to be called now and then all the same.
  virtual int fd() const = 0;

  /// What was wrong at the last BROKEN.
  const std::string& problem() const { return m_problem; }

 protected:
  std::string m_problem;
};

/// Connects to a service. Null, with the problem named, when there is none (over UDP nothing tells).
std::unique_ptr<Connection> connectTo(const Target& target, std::string& problem);

}  // namespace client
