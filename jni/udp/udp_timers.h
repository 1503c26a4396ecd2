// The timers of the reliable UDP transport: one record per packet that may have to be sent again, and the
// list of records that are due some time. Both belong to the transport thread.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "base/clock.h"
#include "udp/udp_packet.h"

/// Where the transport takes time from: the one clock and the one interval of all its timers. Tests shorten
/// the interval or bring a clock of their own; everybody else takes what stands here.
struct UdpTiming {
  int64_t (*now)() = nowMs;             // milliseconds; called on the transport thread
  int intervalMs = udp::kRetransmitMs;  // milliseconds between two sends of an unacknowledged packet
};

/// A timer record. It lives inside a sender and owns the packet; a null packet means that the record is free.
struct TimeoutEvent {
  int64_t expiry = 0;  // milliseconds of UdpTiming::now
  int32_t tc = 0;      // how often the packet was sent again
  sockaddr_in peer{};  // where the packet was sent
  std::unique_ptr<UdpPkg> pkg;
};

/// "T[%x %s to:%d tc:%d %s]": the low 32 bits of the record's address, the peer, milliseconds until expiry
/// (negative when overdue), tc, and the packet's text or "pkg:NULL".
std::string timeoutText(const TimeoutEvent& record, int64_t now);

/// The pending timers in the order in which they fall due; of equal ones, in the order of arrival. The list
/// never owns the records.
class TimerList {
 public:
  using Node = std::list<TimeoutEvent*>::iterator;

  bool empty() const { return m_records.empty(); }
  int size() const { return static_cast<int>(m_records.size()); }

  /// The timer that falls due first. The list must not be empty.
  Node front() { return m_records.begin(); }

  /// Links the record behind all that do not fall due later. The record of the front node may be linked anew
  /// while that node is being handled: its own expiry has changed by then, so the new node comes behind it.
  void insert(TimeoutEvent* record);

  void erase(Node node) { m_records.erase(node); }

  /// Unlinks the first node of the record. False when there is none.
  bool remove(const TimeoutEvent* record);

  void clear() { m_records.clear(); }

 private:
  std::list<TimeoutEvent*> m_records;  // transport thread
};
