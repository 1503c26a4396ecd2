// The timers of the reliable UDP transport: one record per packet that may have to be sent again, and the
// list of records that are due some time. Both belong to the transport thread.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>

#include "base/clock.h"
#include "udp/udp_list.h"
#include "udp/udp_packet.h"

/// Where the transport takes time from: the one clock and the one interval of all its timers. Tests shorten
/// the interval or bring a clock of their own; everybody else takes what stands here.
struct UdpTiming {
  int64_t (*now)() = nowMs;             // milliseconds; called on the transport thread
  int intervalMs = udp::kRetransmitMs;  // milliseconds between two sends of an unacknowledged packet
  int (*copies)() = nullptr;            // how often the next datagram goes out (0: lost); null: once
};

/// A timer record. It lives inside a sender and owns the packet; a null packet means that the record is free.
/// While it is linked it is pending.
struct TimeoutEvent : Linked<TimeoutEvent> {
  int64_t expiry = 0;  // milliseconds of UdpTiming::now
  int32_t tc = 0;      // how often the packet was sent again
  sockaddr_in peer{};  // where the packet was sent
  std::unique_ptr<UdpPkg> pkg;
};

/// "T[%x %s to:%d tc:%d %s]": the low 32 bits of the record's address, the peer, milliseconds until expiry
/// (negative when overdue), tc, and the packet's text or "pkg:NULL".
std::string timeoutText(const TimeoutEvent& record, int64_t now);

/// The pending timers in the order in which they fall due; of equal ones, in the order of arrival. The list
/// never owns the records. All timers run equally long, so that a new one belongs to the end, unless the
/// clock was set back: linking and unlinking do not depend on how many there are.
class TimerList {
 public:
  bool empty() const { return m_records.empty(); }
  /// Counts them, for the traces.
  int size() const;

  /// The timer that falls due first. The list must not be empty.
  TimeoutEvent& front() const { return *m_records.front(); }

  /// Links the record behind all that do not fall due later. A record that is pending is moved.
  void insert(TimeoutEvent& record);

  void clear() { m_records.clear(); }

 private:
  LinkedList<TimeoutEvent> m_records;
};
