// A peer of the UDP transport that is driven by hand, datagram by datagram, so that it can lose, double,
// reorder, forge and break what it sends, and look at each datagram that comes.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "shared/UniqueFd.h"
#include "tools/check/Check.h"
#include "udp/udp_packet.h"

namespace check {

class UdpPeer {
 public:
  explicit UdpPeer(Check& check);

  // ---- To the service ----

  /// A datagram, sealed.
  static std::string sealed(PacketType type, uint32_t sequence, const std::string& payload = "",
                            uint32_t offset = 0, uint32_t totalLength = 0, int64_t sessionId = 0);
  /// The DATA packets of a message, numbered on from the last one.
  std::vector<std::string> cut(const std::string& message);
  void send(const std::string& datagram);
  /// Opens the direction; the case fails when the SYN is not acknowledged.
  void open();
  /// Sends datagrams one after the other, each when the one before was acknowledged. The case fails when one
  /// never is.
  void sendReliably(const std::vector<std::string>& datagrams);
  /// sendReliably() of a request.
  void request(uint16_t funcid, const std::string& body = "");

  // ---- From the service ----

  /// The header of the ACK of a sequence number, if it comes in time. What else comes is handled meanwhile.
  std::optional<UdpPkg> ackOf(uint32_t sequence, int64_t ms);
  /// How many ACKs of a sequence number have come.
  int acksOf(uint32_t sequence) { return m_ackCounts[sequence]; }
  /// The next whole reply as it should be, if it comes in time. The case fails when it is none.
  std::optional<client::Reply> reply(int64_t ms);
  /// Handles what comes for so long.
  void listen(int64_t ms);
  /// Whether what comes is acknowledged.
  void acknowledge(bool on) { m_acknowledges = on; }
  /// The service's DATA packets so far: how often each came.
  const std::map<uint32_t, int>& seen() const { return m_seen; }
  uint32_t lastSequence() const { return m_sequence; }
  void restart() { m_sequence = udp::kFirstSequence; }

 private:
  bool step(int64_t deadlineMs);
  void receive(const UdpPkg& packet);
  void receiveData(const UdpPkg& packet);
  void acknowledge(const UdpPkg& packet, uint32_t offset);

  Check& m_check;
  const shared::UniqueFd m_fd;
  sockaddr_in m_from{};  // who sent the last datagram
  uint32_t m_sequence = udp::kFirstSequence;
  bool m_acknowledges = true;
  std::map<uint32_t, UdpPkg> m_acks;  // by what they acknowledge; the last one of each
  std::map<uint32_t, int> m_ackCounts;
  uint32_t m_expected = 0;  // the service's next sequence number; 0 before its SYN
  std::map<uint32_t, int> m_seen;
  std::string m_message;  // of which some pieces have come
  std::deque<std::string> m_messages;
};

/// The case fails unless the service answers a new peer.
void udpAlive(Check& check);

}  // namespace check
