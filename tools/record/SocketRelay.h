// A relay between applications and a service on local sockets: what either side sends reaches the other as it
// is, and a recording.
//
// A connection has two ways, each with the read end of one side and the write end of the other. A way reads
// only when all that it has read has been passed on (so a slow reader slows its writer, as it would without a
// relay), and ends like this:
//
//   the sender has shut its end, or died    what was read is passed on, then the receiver's end is shut
//   the receiver takes no more              what cannot be passed on is dropped, the sender's end is shut
//   one side has closed altogether          its way is read to the end and passed on, then both are closed
//   the recording ends                      what is there already is passed on, then both are closed
//
// What a service sees of the application through SO_PEERCRED is this program.
#pragma once

#include <memory>
#include <string>
#include <unordered_set>

#include "tools/record/Recorder.h"

namespace record {

class SocketRelay {
 public:
  /// service   the service's abstract name
  /// recorder  must outlive the relay
  SocketRelay(std::string service, Recorder& recorder);
  ~SocketRelay();

  /// Listens for applications under an abstract name. False with the problem named.
  bool start(const std::string& as, std::string& problem);

  /// Relays until `end` is readable. False when it cannot (no descriptors left).
  bool run(int end);

 private:
  class Connection;

  void accept();
  int due();
  void close(const std::shared_ptr<Connection>& connection);

  const std::string m_service;
  Recorder& m_recorder;
  shared::UniqueFd m_listener;
  uint64_t m_listening = 0;     // the listener's watch
  int64_t m_acceptAgainAt = 0;  // milliseconds; 0: applications are accepted. Set when descriptors run out.
  std::unordered_set<std::shared_ptr<Connection>> m_connections;
  std::unordered_set<std::shared_ptr<Connection>> m_unfinished;  // have something to do without an event
};

}  // namespace record
