#include "service/clients/UdpPort.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "service/core/SteadyClock.h"
#include "shared/Text.h"

namespace service {
namespace {

/// Ids of UDP peers say their address, so that one that was forgotten can still cancel what it was given. The
/// top bit keeps them apart from those of socket clients.
uint64_t requesterId(const sockaddr_in& address) {
  return uint64_t{1} << 63 | peerKey(address);
}

}  // namespace

UdpPort::UdpPort(ClientHandler& handler, const Log& log, const UdpLimits& limits, const UdpTiming& timing)
    : m_handler(handler), m_log(log), m_limits(limits), m_timing(timing), m_inbox(m_mailbox, timing) {}

bool UdpPort::start(const sockaddr_in& address, std::string& problem) {
  if (m_mailbox.isOpen() && m_inbox.listen(address)) return true;
  problem = "cannot listen on udp " + addressText(address) + ": " +
            (errno == EADDRINUSE ? "the port is in use: end the program that holds it, or choose another port"
                                 : shared::errorText(errno));
  return false;
}

void UdpPort::receive(int64_t now) {
  // Others stay where they are counted until those that were taken have had their turn.
  UdpMailbox::Contents contents = m_mailbox.take(m_arrived.empty());
  if (contents.dropped != 0) {
    m_log.warning(fmt::format("dropped {} UDP messages: more than could be kept", contents.dropped));
  }
  for (const UdpMailbox::Delivery& delivery : contents.deliveries) delivered(delivery, now);
  std::move(contents.messages.begin(), contents.messages.end(), std::back_inserter(m_arrived));
}

void UdpPort::goOn(int64_t now) {
  for (size_t i = 0; i < kUdpRequestsPerRound && !m_arrived.empty(); ++i) {
    UdpMailbox::Message message = std::move(m_arrived.front());
    m_arrived.pop_front();
    if (!request(std::move(message), now)) break;
  }
  for (auto next = m_peers.begin(); next != m_peers.end();) {
    const auto peer = next++;
    if (peer->second->m_acknowledgeBy <= now) {
      forget(peer, "it does not acknowledge its replies");
    } else if (now - peer->second->m_heardAt >= m_limits.ageMs) {
      forget(peer, "it has been silent for long");
    }
  }
}

int64_t UdpPort::nextDue() const {
  if (!m_arrived.empty()) return 0;
  int64_t next = INT64_MAX;
  for (const auto& [key, peer] : m_peers) {
    next = std::min({next, peer->m_heardAt + m_limits.ageMs, peer->m_acknowledgeBy});
  }
  return next;
}

bool UdpPort::request(UdpMailbox::Message message, int64_t now) {
  const auto known = m_peers.find(peerKey(message.from));
  if (known != m_peers.end() && known->second->isBusy()) {  // answers come in the order of the requests
    DatagramClient& peer = *known->second;
    const size_t bytes = peer.m_deferredBytes + message.bytes.size();
    if (peer.m_deferred.size() >= kMaxUdpDeferred || bytes > kMaxUdpDeferredBytes) return true;
    peer.m_deferredBytes = bytes;
    peer.m_deferred.push_back(std::move(message));
    return true;
  }
  RequestPacket packet;
  Request request;
  std::string problem;
  if (!readRequestMessage(message.bytes.data(), message.bytes.size(), packet, problem) ||
      !decodeRequest(packet, request, problem)) {
    m_log.warning(
        fmt::format("ignored a message of udp={}: bad input: {}", addressText(message.from), problem));
    return true;
  }
  DatagramClient& peer = peerAt(message.from);
  peer.m_heardAt = now;
  const bool goOn = m_handler.handle(peer, std::move(request), steadyMs());
  sendOn(peer, now);
  return goOn;
}

void UdpPort::delivered(const UdpMailbox::Delivery& delivery, int64_t now) {
  const auto found = std::find_if(m_peers.begin(), m_peers.end(), [&](const Peers::value_type& entry) {
    const auto& replier = entry.second->m_replier;
    return replier != nullptr && replier->serial() == delivery.replier;
  });
  if (found == m_peers.end()) return;  // forgotten meanwhile
  if (delivery.gaveUp) {
    // The packet would bound its transport for good. A peer that comes back gets a new one.
    forget(found, "it does not acknowledge its replies");
    return;
  }
  DatagramClient& peer = *found->second;
  peer.m_heardAt = now;  // somebody is there, who may have nothing to ask but gets pushes
  peer.m_hasAcknowledged = true;
  peer.m_acknowledgeBy = INT64_MAX;
  if (peer.m_inFlight > 0) --peer.m_inFlight;
  sendOn(peer, now);
}

DatagramClient& UdpPort::peerAt(const sockaddr_in& address) {
  const uint64_t key = peerKey(address);
  const auto found = m_peers.find(key);
  if (found != m_peers.end()) return *found->second;
  if (m_peers.size() >= m_limits.peers) {
    const auto worth = [](const Peers::value_type& entry) {
      return std::make_pair(entry.second->m_hasAcknowledged, entry.second->m_heardAt);
    };
    forget(std::min_element(m_peers.begin(), m_peers.end(),
                            [&](const auto& a, const auto& b) { return worth(a) < worth(b); }),
           "others need its place");
  }
  Requester requester;
  requester.id = requesterId(address);
  requester.name = "udp=" + addressText(address);
  m_log.debug("first message of " + requester.name);
  ++m_changes;
  return *(m_peers[key] = std::make_unique<DatagramClient>(address, requester));
}

void UdpPort::sendOn(DatagramClient& peer, int64_t now) {
  const char* problem =
      peer.m_waiting.size() > kMaxUdpPendingReplies ? "it does not take its replies" : nullptr;
  if (problem == nullptr && peer.m_replier == nullptr && !peer.m_waiting.empty()) {
    peer.m_replier = std::make_unique<UdpReplier>(m_mailbox, ++m_lastSerial, m_timing);
    if (!peer.m_replier->open(m_inbox.localAddress()))
      problem = "no socket or thread is left for its replies";
  }
  while (problem == nullptr && !peer.m_waiting.empty() &&
         peer.m_inFlight < (peer.m_hasAcknowledged ? kMaxUdpInFlight : 1)) {
    const std::string& reply = peer.m_waiting.front();
    const auto* const bytes = reinterpret_cast<const uint8_t*>(reply.data());
    // A peer can acknowledge what it has not got, so the count alone does not say that there is a place.
    // Without one the replies stay here; the transport's next news, or the peer's age, decides.
    if (!peer.m_replier->trySend(peer.m_address, bytes, static_cast<uint32_t>(reply.size()))) break;
    ++peer.m_inFlight;
    peer.m_waiting.pop_front();
    // Before the transport would send once more.
    if (!peer.m_hasAcknowledged) {
      peer.m_acknowledgeBy = now + int64_t{kFirstReplySends} * m_timing.intervalMs - m_timing.intervalMs / 5;
    }
  }
  if (problem != nullptr) forget(m_peers.find(peerKey(peer.m_address)), problem);
}

void UdpPort::pushToRegistered(const std::function<void(Client&)>& push, int64_t now) {
  for (auto next = m_peers.begin(); next != m_peers.end();) {
    DatagramClient& peer = *(next++)->second;  // sendOn() may forget it
    if (!peer.isRegistered()) continue;
    push(peer);
    sendOn(peer, now);
  }
}

void UdpPort::resume(DatagramClient& peer, int64_t now) {
  for (; !peer.m_deferred.empty(); peer.m_deferred.pop_back()) {
    m_arrived.push_front(std::move(peer.m_deferred.back()));
  }
  peer.m_deferredBytes = 0;
  sendOn(peer, now);
}

DatagramClient* UdpPort::find(uint64_t id) {
  const auto found = std::find_if(m_peers.begin(), m_peers.end(),
                                  [&](const auto& entry) { return entry.second->requester().id == id; });
  return found != m_peers.end() ? found->second.get() : nullptr;
}

void UdpPort::forEach(const std::function<void(const DatagramClient&)>& visit) const {
  for (const auto& [key, peer] : m_peers) visit(*peer);
}

void UdpPort::forget(Peers::iterator peer, const std::string& why) {
  m_log.info(fmt::format("forgot {}: {}", peer->second->requester().name, why));
  m_peers.erase(peer);
  ++m_changes;
}

}  // namespace service
