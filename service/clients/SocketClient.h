// One client on the local socket: its bytes in and its bytes out, never waiting for it.
#pragma once

#include <string>
#include <utility>

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
  const RequestReader& reader() const { return m_reader; }

  void answer(const Request& request, uint32_t status) override { m_replies.answer(request, status); }
  void push(const Push& push) override { m_replies.push(push); }
  void put(const std::string& bytes) override { m_replies.put(bytes); }

  void misbehave(Misbehaviour how) override;

  /// Reads once, at most 64 KiB, into the reader. Afterwards hasEnded() when the client has ended its side,
  /// or is broken.
  void receive();
  bool hasEnded() const { return m_hasEnded; }
  /// Takes nothing more from the client. It is closed, for this reason, once its replies have left, or have
  /// had their time as those of a client that has ended.
  void endFor(std::string why) {
    m_reader.drop();
    m_hasEnded = true;
    m_endedFor = std::move(why);
  }
  const std::string& endedFor() const { return m_endedFor; }  // empty: it was not endFor()
  bool isToBeClosed() const { return m_isToBeClosed; }
  bool isRead() const { return !m_isUnread; }

  /// Sends what the socket takes now. A client that cannot be written to any more loses its replies, but what
  /// it sent is still read. False when it has left too many replies unread.
  bool flush();

  /// Whether replies wait for the socket to take them.
  bool hasOutput() const { return m_replies.size() > 0; }

  // The port's notes.
  uint32_t watchedEvents = 0;  // what the poller waits for
  int64_t heardAt = 0;         // when it connected or made a request, in milliseconds
  int64_t closeAt = 0;         // having ended: when to close it, taken its replies or not; 0 before

 private:
  const shared::UniqueFd m_socket;
  RequestReader m_reader;
  ReplyStream m_replies;
  bool m_hasEnded = false;
  std::string m_endedFor;
  bool m_isToBeClosed = false;  // these three by misbehave()
  bool m_isHalfClosed = false;
  bool m_isUnread = false;
};

}  // namespace service
