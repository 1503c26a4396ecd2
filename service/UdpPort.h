// The service's UDP port: the peers that speak to it, and the replies on their way to them. Belongs to the
// server's thread.
//
// A peer is an IPv4 address and port, and nothing more: datagrams carry no proof of who sent them, so that
// whoever can send to the port can ask in anybody's name, and replies go to whatever address a request bears.
// That is why nothing is done over UDP that concerns a process (status 7).
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "IClient.h"
#include "Journal.h"
#include "UdpTransport.h"

namespace service {

/// Peers that are remembered at a time, each with a transport for its replies; beyond, the one silent for
/// longest is forgotten.
constexpr size_t kMaxUdpPeers = 32;
/// A peer is forgotten, with its registration for pushes, when it has been silent for so long (milliseconds).
/// Its boosts go on until their own time is up.
constexpr int64_t kUdpPeerAgeMs = 60'000;
/// Replies that may wait for one peer; with more it is forgotten.
constexpr size_t kMaxUdpPendingReplies = 16384;
/// Replies handed to the transport and not yet acknowledged, as far as the peer tells.
constexpr size_t kMaxUdpInFlight = udp::kSendQueueMessages - 1;

class UdpPeer : public IClient {
 public:
  UdpPeer(const sockaddr_in& address, Peer peer) : IClient(std::move(peer)), m_address(address) {}

  void answer(const Request& request, uint32_t status) override {
    m_waiting.push_back(packAnswer(request, status));
  }
  /// A message is a reply here: what a stream needs between two bodies is not needed.
  void push(const Push& push) override { m_waiting.push_back(packPush(push)); }

 private:
  friend class UdpPort;

  const sockaddr_in m_address;
  int64_t m_heardAt = 0;  // milliseconds
  std::deque<std::string> m_waiting;
  size_t m_inFlight = 0;
  std::unique_ptr<UdpReplier> m_replier;  // made for the first reply
};

class UdpPort {
 public:
  using Handler = std::function<void(IClient&, const Request&)>;

  /// The journal must outlive the port. timing: for tests; see UdpTiming.
  explicit UdpPort(const Journal& journal, const UdpTiming& timing = UdpTiming());

  /// Reads "ADDRESS:PORT", an IPv4 address and a port (0: of the system's choice). False when it is not one.
  static bool parseAddress(const std::string& text, sockaddr_in& address);

  /// Binds and starts receiving. False, with the problem named, when that fails.
  bool start(const sockaddr_in& address, std::string& problem);

  /// Readable when receive() has something to do.
  int fd() const { return m_mailbox.fd(); }

  /// "127.0.0.1:4000", with the port that the system chose.
  std::string address() const { return addressText(m_inbox.localAddress()); }

  /// Hands every request that has arrived to `handle`, and sends on what waits.
  void receive(int64_t now, const Handler& handle);

  /// Puts a push behind what waits for every registered peer, and sends on.
  void pushToRegistered(const std::function<void(IClient&)>& push);

  /// Forgets the peers that have been silent for too long.
  void expire(int64_t now);
  /// When the next one will have been, in milliseconds; INT64_MAX without any.
  int64_t nextExpiry() const;

 private:
  using Peers = std::map<uint64_t, std::unique_ptr<UdpPeer>>;

  void request(const UdpMailbox::Message& message, int64_t now, const Handler& handle);
  void delivered(const UdpMailbox::Delivery& delivery);
  UdpPeer& peerAt(const sockaddr_in& address);
  void sendOn(UdpPeer& peer);
  void forget(Peers::iterator peer, const std::string& why);

  const Journal& m_journal;
  const UdpTiming m_timing;
  UdpMailbox m_mailbox;  // before the transports, which use it until they are gone
  UdpInbox m_inbox;
  uint64_t m_lastSerial = 0;  // of repliers
  Peers m_peers;              // by peerKey()
};

}  // namespace service
