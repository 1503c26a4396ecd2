// The two ends of the reliable UDP transport that a service needs, and the mailbox between their threads and
// the server's.
//
// Requests of all peers arrive at one UdpInbox, on the service's port. Replies leave from a UdpReplier per
// peer, each with a socket and a thread of its own: a transport sends first in, first out, so that in a
// shared one a peer that has vanished would hold up the replies to all others, and for good.
//
// Threads: recvEvent() runs on a transport's thread, which must neither wait nor send; it only leaves a note
// in the mailbox. Everything else belongs to the server's thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "udp.h"

namespace service {

/// Messages and bytes that may wait for the server's thread; what comes beyond is dropped and counted.
constexpr size_t kMaxMailboxMessages = 4096;
constexpr size_t kMaxMailboxBytes = size_t{32} * 1024 * 1024;

class UdpMailbox {
 public:
  struct Message {
    sockaddr_in from;
    std::vector<uint8_t> bytes;
  };
  /// A replier's news: one of its messages has arrived, or one was given up.
  struct Delivery {
    uint64_t replier;  // its serial number
    bool gaveUp;
  };
  struct Contents {
    std::vector<Message> messages;
    std::vector<Delivery> deliveries;
    size_t dropped = 0;  // messages
  };

  UdpMailbox();
  bool isOpen() const { return static_cast<bool>(m_event); }
  /// Readable while there is something in the box.
  int fd() const { return m_event.get(); }

  // Any thread; never wait.
  void put(const sockaddr_in& from, const uint8_t* data, uint32_t length);
  void put(const Delivery& delivery);

  /// Everything in the box, in order of arrival.
  Contents take();

 private:
  void ring() const;

  const Descriptor m_event;
  std::mutex m_lock;
  Contents m_contents;  // guarded by m_lock
  size_t m_bytes = 0;   // of the messages; guarded by m_lock
};

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

/// Sends replies to one peer.
class UdpReplier : public UDP {
 public:
  /// serial  names it in the mailbox
  UdpReplier(UdpMailbox& mailbox, uint64_t serial, const UdpTiming& timing)
      : UDP(timing), m_mailbox(mailbox), m_serial(serial) {}
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
