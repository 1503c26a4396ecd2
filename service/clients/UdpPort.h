// The service's UDP port: the peers that speak to it, and the replies on their way to them. Belongs to the
// server's thread.
//
// A peer is an IPv4 address and port, and nothing more: datagrams carry no proof of who sent them, so that
// whoever can send to the port can ask in anybody's name, and replies go to whatever address a request bears.
// That is why nothing is done over UDP that concerns a process (status 7).
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "service/clients/DatagramClient.h"
#include "service/clients/UdpEnds.h"
#include "service/core/Log.h"

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

class UdpPort {
 public:
  using Handler = std::function<void(Client&, const Request&)>;

  /// The log must outlive the port. timing: for tests; see UdpTiming.
  explicit UdpPort(const Log& log, const UdpTiming& timing = UdpTiming());

  /// Binds and starts receiving. False, with the problem named, when that fails.
  bool start(const sockaddr_in& address, std::string& problem);

  /// Readable when receive() has something to do.
  int fd() const { return m_mailbox.fd(); }

  /// "127.0.0.1:4000", with the port that the system chose.
  std::string address() const { return addressText(m_inbox.localAddress()); }

  /// Hands every request that has arrived to `handle`, and sends on what waits.
  void receive(int64_t now, const Handler& handle);

  /// Puts a push behind what waits for every registered peer, and sends on.
  void pushToRegistered(const std::function<void(Client&)>& push);

  /// Forgets the peers that have been silent for too long.
  void expire(int64_t now);
  /// When the next one will have been, in milliseconds; INT64_MAX without any.
  int64_t nextExpiry() const;

 private:
  using Peers = std::map<uint64_t, std::unique_ptr<DatagramClient>>;

  void request(const UdpMailbox::Message& message, int64_t now, const Handler& handle);
  void delivered(const UdpMailbox::Delivery& delivery);
  DatagramClient& peerAt(const sockaddr_in& address);
  void sendOn(DatagramClient& peer);
  void forget(Peers::iterator peer, const std::string& why);

  const Log& m_log;
  const UdpTiming m_timing;
  UdpMailbox m_mailbox;  // before the transports, which use it until they are gone
  UdpInbox m_inbox;
  uint64_t m_lastSerial = 0;  // of repliers
  Peers m_peers;              // by peerKey()
};

}  // namespace service
