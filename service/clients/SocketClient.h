// One client on the local socket: its bytes in and its bytes out, never waiting for it.
#pragma once

#include <string>

#include "service/clients/Client.h"
#include "service/wire/RequestReader.h"
#include "shared/UniqueFd.h"

namespace service {

/// Replies that a client may leave unread, in bytes; one that leaves more is closed.
constexpr size_t kMaxPendingOutput = size_t{256} * 1024;

class SocketClient : public Client {
 public:
  /// socket  connected and non-blocking
  SocketClient(shared::UniqueFd socket, Requester requester)
      : Client(std::move(requester)), m_socket(std::move(socket)) {}

  int fd() const { return m_socket.get(); }
  RequestReader& reader() { return m_reader; }

  void answer(const Request& request, uint32_t status) override { m_replies.answer(request, status); }
  void push(const Push& push) override { m_replies.push(push); }

  /// Reads once, at most 64 KiB, into the reader. False when the client has ended its side, or is broken.
  bool receive();

  /// Sends what the socket takes now. A client that cannot be written to any more loses its replies, but what
  /// it sent is still read. False when it has left too many replies unread.
  bool flush();

  /// Whether replies wait for the socket to take them.
  bool hasOutput() const { return m_replies.size() > 0; }

  /// Whether the server waits for the socket to take more; the server's note.
  bool isWatchedForOutput() const { return m_watchedForOutput; }
  void setWatchedForOutput(bool watched) { m_watchedForOutput = watched; }

 private:
  const shared::UniqueFd m_socket;
  RequestReader m_reader;
  ReplyStream m_replies;
  bool m_watchedForOutput = false;
};

}  // namespace service
