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

#include "service/clients/ClientHandler.h"
#include "service/clients/DatagramClient.h"
#include "service/clients/UdpEnds.h"
#include "service/core/Log.h"

namespace service {

struct UdpLimits {
  /// Peers that are remembered at a time, each with a transport for its replies; beyond, one that has never
  /// acknowledged anything is forgotten first (its address may be forged), else the one silent for longest.
  size_t peers = 32;
  /// A peer is forgotten, with its registration for pushes, when nothing has come from it for so long
  /// (milliseconds), neither a request nor an acknowledgement. Its boosts go on until their own time is up.
  int64_t ageMs = 60'000;
};

/// Replies that may wait for one peer; with more it is forgotten.
constexpr size_t kMaxUdpPendingReplies = 16384;
/// Replies handed to the transport and not yet acknowledged, as far as the peer tells. One only as long as
/// the peer has never acknowledged any: a forged request shall not be answered with a flood.
constexpr size_t kMaxUdpInFlight = udp::kSendQueueMessages - 1;
/// How often that first reply is sent: less than the transport would, for the same reason.
constexpr int kFirstReplySends = 3;
/// Requests that are handled before others get their turn.
constexpr size_t kUdpRequestsPerRound = 64;
/// Requests that wait while one of the same peer is being carried out; more are dropped.
constexpr size_t kMaxUdpDeferred = 1024;
constexpr size_t kMaxUdpDeferredBytes = size_t{1024} * 1024;

class UdpPort {
 public:
  /// The handler and the log must outlive the port. timing: for tests; see UdpTiming.
  UdpPort(ClientHandler& handler, const Log& log, const UdpLimits& limits, const UdpTiming& timing);

  /// Binds and starts receiving. False, with the problem named, when that fails.
  bool start(const sockaddr_in& address, std::string& problem);

  /// Readable when receive() has something to do.
  int fd() const { return m_mailbox.fd(); }

  /// "127.0.0.1:4000", with the port that the system chose.
  std::string address() const { return addressText(m_inbox.localAddress()); }

  /// Takes what has arrived.
  void receive(int64_t now);

  /// Puts a push behind what waits for every registered peer, and sends on.
  void pushToRegistered(const std::function<void(Client&)>& push, int64_t now);

  /// What is due: hands requests that have arrived to the handler, some of them, and sends on what waits;
  /// forgets peers that have been silent for too long.
  void goOn(int64_t now);
  /// When goOn() has something to do; `now` or before: at once; INT64_MAX: never.
  int64_t nextDue() const;

  /// Goes on with a peer that was busy.
  void resume(DatagramClient& peer, int64_t now);

  /// Null when it was forgotten.
  DatagramClient* find(uint64_t id);
  /// Hands replies to the peer's transport while it takes them without waiting. Forgets the peer when it
  /// cannot be served.
  void sendOn(DatagramClient& peer, int64_t now);
  void forEach(const std::function<void(const DatagramClient&)>& visit) const;

  /// Counts up with every peer that comes or goes.
  uint64_t changes() const { return m_changes; }

 private:
  using Peers = std::map<uint64_t, std::unique_ptr<DatagramClient>>;

  bool request(UdpMailbox::Message message, int64_t now);
  void delivered(const UdpMailbox::Delivery& delivery, int64_t now);
  DatagramClient& peerAt(const sockaddr_in& address);
  void forget(Peers::iterator peer, const std::string& why);

  ClientHandler& m_handler;
  const Log& m_log;
  const UdpLimits m_limits;
  const UdpTiming m_timing;
  UdpMailbox m_mailbox;  // before the transports, which use it until they are gone
  UdpInbox m_inbox;
  uint64_t m_lastSerial = 0;                  // of repliers
  std::deque<UdpMailbox::Message> m_arrived;  // requests that wait for their turn
  Peers m_peers;                              // by peerKey()
  uint64_t m_changes = 0;
};

}  // namespace service
