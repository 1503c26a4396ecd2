// The send window: the DATA packets of one sender that wait for their acknowledgement. Transport thread only.
//
// Five slots, filled from slot 4 down and shown from slot 4 down. At most five consecutive sequence numbers
// are outstanding, so a packet that is never acknowledged bounds its sender for good, even though it was
// given up long ago: that is wanted.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "udp/udp_timers.h"

class SendWindow {
 public:
  /// The slot that the packet with this sequence number would take: the free one with the highest number.
  /// Null while there is none, or while the number is more than 4 beyond the lowest one outstanding (unsigned
  /// 32-bit arithmetic, wrap-around included, kept plain).
  TimeoutEvent* slotFor(uint32_t sequence);

  /// The slot whose packet has this sequence number, slot 0 first; null when there is none.
  TimeoutEvent* find(uint32_t sequence);

  /// Of each slot the packet's sequence number, 4294967295 for a free slot, and ";".
  std::string text() const;

  std::array<TimeoutEvent, udp::kWindowSlots>& slots() { return m_slots; }

 private:
  std::array<TimeoutEvent, udp::kWindowSlots> m_slots;  // a slot without a packet is free
};
