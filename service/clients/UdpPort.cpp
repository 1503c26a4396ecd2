#include "service/clients/UdpPort.h"

#include <algorithm>
#include <cerrno>

#include "shared/Text.h"

namespace service {
namespace {

/// Ids of UDP peers say their address, so that one that was forgotten can still cancel what it was given. The
/// top bit keeps them apart from those of socket clients.
uint64_t requesterId(const sockaddr_in& address) {
  return uint64_t{1} << 63 | peerKey(address);
}

}  // namespace

UdpPort::UdpPort(const Log& log, const UdpTiming& timing)
    : m_log(log), m_timing(timing), m_inbox(m_mailbox, timing) {}

bool UdpPort::start(const sockaddr_in& address, std::string& problem) {
  if (m_mailbox.isOpen() && m_inbox.listen(address)) return true;
  problem = "cannot listen on udp " + addressText(address) + ": " +
            (errno == EADDRINUSE ? "the port is in use: end the program that holds it, or choose another port"
                                 : shared::errorText(errno));
  return false;
}

void UdpPort::receive(int64_t now, const Handler& handle) {
  const UdpMailbox::Contents contents = m_mailbox.take();
  if (contents.dropped != 0) {
    m_log.always("dropped " + std::to_string(contents.dropped) + " UDP messages: more than could be kept");
  }
  for (const UdpMailbox::Delivery& delivery : contents.deliveries) delivered(delivery);
  for (const UdpMailbox::Message& message : contents.messages) request(message, now, handle);
}

void UdpPort::request(const UdpMailbox::Message& message, int64_t now, const Handler& handle) {
  RequestPacket packet;
  Request request;
  std::string problem;
  if (!readRequestMessage(message.bytes.data(), message.bytes.size(), packet, problem) ||
      !decodeRequest(packet, request, problem)) {
    m_log.always("ignored a message of udp=" + addressText(message.from) + ": bad input: " + problem);
    return;
  }
  DatagramClient& peer = peerAt(message.from);
  peer.m_heardAt = now;
  handle(peer, request);
  sendOn(peer);
}

void UdpPort::delivered(const UdpMailbox::Delivery& delivery) {
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
  if (found->second->m_inFlight > 0) --found->second->m_inFlight;
  sendOn(*found->second);
}

DatagramClient& UdpPort::peerAt(const sockaddr_in& address) {
  const uint64_t key = peerKey(address);
  const auto found = m_peers.find(key);
  if (found != m_peers.end()) return *found->second;
  if (m_peers.size() >= kMaxUdpPeers) {
    forget(std::min_element(m_peers.begin(), m_peers.end(),
                            [](const Peers::value_type& a, const Peers::value_type& b) {
                              return a.second->m_heardAt < b.second->m_heardAt;
                            }),
           "others need its place");
  }
  const Requester requester{requesterId(address), "udp=" + addressText(address), nullptr};
  m_log.detail("first message of " + requester.name);
  return *(m_peers[key] = std::make_unique<DatagramClient>(address, requester));
}

/// Hands replies to the peer's transport while it takes them without waiting. Forgets the peer when it
/// cannot be served.
void UdpPort::sendOn(DatagramClient& peer) {
  const char* problem =
      peer.m_waiting.size() > kMaxUdpPendingReplies ? "it does not take its replies" : nullptr;
  if (problem == nullptr && peer.m_replier == nullptr && !peer.m_waiting.empty()) {
    peer.m_replier = std::make_unique<UdpReplier>(m_mailbox, ++m_lastSerial, m_timing);
    if (!peer.m_replier->open(m_inbox.localAddress()))
      problem = "no socket or thread is left for its replies";
  }
  while (problem == nullptr && !peer.m_waiting.empty() && peer.m_inFlight < kMaxUdpInFlight) {
    const std::string& reply = peer.m_waiting.front();
    const auto* const bytes = reinterpret_cast<const uint8_t*>(reply.data());
    // A peer can acknowledge what it has not got, so the count alone does not say that there is a place.
    // Without one the replies stay here; the transport's next news, or the peer's age, decides.
    if (!peer.m_replier->trySend(peer.m_address, bytes, static_cast<uint32_t>(reply.size()))) break;
    ++peer.m_inFlight;
    peer.m_waiting.pop_front();
  }
  if (problem != nullptr) forget(m_peers.find(peerKey(peer.m_address)), problem);
}

void UdpPort::pushToRegistered(const std::function<void(Client&)>& push) {
  for (auto next = m_peers.begin(); next != m_peers.end();) {
    DatagramClient& peer = *(next++)->second;  // sendOn() may forget it
    if (!peer.isRegistered()) continue;
    push(peer);
    sendOn(peer);
  }
}

void UdpPort::expire(int64_t now) {
  for (auto next = m_peers.begin(); next != m_peers.end();) {
    const auto peer = next++;
    if (now - peer->second->m_heardAt >= kUdpPeerAgeMs) forget(peer, "it has been silent for long");
  }
}

int64_t UdpPort::nextExpiry() const {
  int64_t next = INT64_MAX;
  for (const auto& [key, peer] : m_peers) next = std::min(next, peer->m_heardAt + kUdpPeerAgeMs);
  return next;
}

void UdpPort::forget(Peers::iterator peer, const std::string& why) {
  m_log.event("forgot " + peer->second->requester().name + ": " + why);
  m_peers.erase(peer);
}

}  // namespace service
