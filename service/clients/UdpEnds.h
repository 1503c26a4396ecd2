// The two ends of the reliable UDP transport that a service needs.
//
// Requests of all peers arrive at one UdpInbox, on the service's port. Replies leave from a UdpReplier per
// peer, each with a socket and a thread of its own: a transport sends first in, first out, so that in a
// shared one a peer that has vanished would hold up the replies to all others, and for good.
//
// Threads: recvEvent() runs on a transport's thread, which must neither wait nor send; it only leaves a note
// in the mailbox. Everything else belongs to the server's thread.
#pragma once

#include "service/clients/UdpMailbox.h"
#include "udp/udp.h"

namespace service {

/// Receives requests.
class UdpInbox : public UDP {
 public:
  UdpInbox(UdpMailbox& mailbox, const UdpTiming& timing) : UDP(timing), m_mailbox(mailbox) {}
  ~UdpInbox() override;
  int recvEvent(int event, const sockaddr_in& peer, int64_t sessionId, const uint8_t* data,
                uint32_t len) override;

  /// Binds and starts its thread. False, with errno set, when that fails.
  bool listen(const sockaddr_in& address);

 private:
  UdpMailbox& m_mailbox;
};

/// Sends replies to one peer. Nobody has business to send messages to it, so that it has no room for them.
class UdpReplier : public UDP {
 public:
  /// serial  names it in the mailbox
  UdpReplier(UdpMailbox& mailbox, uint64_t serial, const UdpTiming& timing)
      : UDP(timing, 0, 1), m_mailbox(mailbox), m_serial(serial) {}
  ~UdpReplier() override;
  int recvEvent(int event, const sockaddr_in& peer, int64_t sessionId, const uint8_t* data,
                uint32_t len) override;

  uint64_t serial() const { return m_serial; }

  /// Binds to a port of the system's choice and starts its thread. False when that fails.
  bool open(const sockaddr_in& localAddress);

 private:
  UdpMailbox& m_mailbox;
  const uint64_t m_serial;
};

}  // namespace service
