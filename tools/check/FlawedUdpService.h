// A flawed service over UDP.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>

#include "shared/UniqueFd.h"
#include "tools/check/FlawedServer.h"
#include "udp/udp_packet.h"

namespace check {

/// Listens on a UDP port of the system's choice, and answers every request with status 0 from the same port.
/// What is not acknowledged goes out again after 100 ms, six times in all.
class FlawedUdpService : public FlawedServer {
 public:
  explicit FlawedUdpService(Flaw flaw) : FlawedServer(flaw) {}
  ~FlawedUdpService() override;
  /// False with the problem named.
  bool start(std::string& problem);
  const sockaddr_in& address() const { return m_address; }

 private:
  struct Sent {
    std::string datagram;
    int times = 0;
    int64_t dueMs = 0;
  };
  struct Peer {
    sockaddr_in address{};
    uint32_t expected = 0;           // the next sequence number; 0: its direction is not open
    std::string message;             // of which some pieces have come
    std::set<uint32_t> acked;        // every sequence number that was acknowledged
    uint32_t sequence = 0;           // the last one that was used; 0: this direction is not open
    std::map<uint32_t, Sent> sent;   // and not acknowledged
    std::deque<std::string> queued;  // replies that wait for a place in the window
  };

  void serve() override;
  void receive(UdpPkg& packet, size_t count, const sockaddr_in& from);
  void receiveData(Peer& peer, const UdpPkg& packet);
  void acknowledge(Peer& peer, const UdpPkg& packet, uint32_t offset);
  void answer(Peer& peer, const std::string& message);
  void pump(Peer& peer);
  void send(const Peer& peer, std::string datagram) const;

  shared::UniqueFd m_fd;
  sockaddr_in m_address{};
  std::map<uint64_t, Peer> m_peers;  // the thread's
};

}  // namespace check
