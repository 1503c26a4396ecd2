// One client on the local socket: its bytes in and its bytes out, never waiting for it.
#pragma once

#include <string>

#include "Descriptor.h"
#include "Peer.h"
#include "Reply.h"
#include "RequestReader.h"

namespace service {

/// Replies that a client may leave unread, in bytes; one that leaves more is closed.
constexpr size_t kMaxPendingOutput = 256 * 1024;

class SocketClient {
 public:
  /// socket  connected and non-blocking
  SocketClient(Descriptor socket, Peer peer) : m_socket(std::move(socket)), m_peer(std::move(peer)) {}

  int fd() const { return m_socket.get(); }
  const Peer& peer() const { return m_peer; }
  RequestReader& reader() { return m_reader; }
  ReplyStream& replies() { return m_replies; }

  bool isRegistered() const { return m_registered; }
  void setRegistered() { m_registered = true; }

  /// Reads once, at most 64 KiB, into the reader. False when the client has ended its side, or is broken.
  bool receive();

  /// Sends what the socket takes now. A client that cannot be written to any more loses its replies, but what
  /// it sent is still read. False when it has left too many replies unread.
  bool flush();

  /// Whether replies wait for the socket to take them.
  bool hasOutput() const { return m_replies.size() > 0; }

 private:
  const Descriptor m_socket;
  const Peer m_peer;
  RequestReader m_reader;
  ReplyStream m_replies;
  bool m_registered = false;  // for pushes, by request 1010
};

}  // namespace service
