// Between the threads of the UDP transports and the server's: what has arrived, and what became of what was
// sent.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "shared/UniqueFd.h"

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

  /// What is in the box, in order of arrival; without `messagesToo` they stay, and so do their bounds.
  Contents take(bool messagesToo);

 private:
  void ring() const;

  const shared::UniqueFd m_event;
  std::mutex m_lock;
  Contents m_contents;  // guarded by m_lock
  size_t m_bytes = 0;   // of the messages; guarded by m_lock
};

}  // namespace service
