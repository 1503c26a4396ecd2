#include "tools/check/FlawedUdpService.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/bytes.h"
#include "base/descriptor.h"
#include "shared/Text.h"
#include "tools/check/UdpPeer.h"
#include "wire/header.h"

namespace check {
namespace {

constexpr int kResendMs = 100;
constexpr uint32_t kLongMessage = 32 << 20;  // in bytes

}  // namespace

FlawedUdpService::~FlawedUdpService() {
  endThread();
}

bool FlawedUdpService::start(std::string& problem) {
  m_fd = shared::UniqueFd(openSocket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  m_address.sin_family = AF_INET;
  m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const address = reinterpret_cast<sockaddr*>(&m_address);
  socklen_t length = sizeof(m_address);
  if (!m_fd || bind(m_fd.get(), address, length) != 0 || getsockname(m_fd.get(), address, &length) != 0) {
    problem = "no UDP socket is to be had: " + shared::errorText(errno);
    return false;
  }
  startThread();
  return true;
}

void FlawedUdpService::serve() {
  pollfd ready{m_fd.get(), POLLIN, 0};
  poll(&ready, 1, kTurnMs);
  while (!m_dead) {
    UdpPkg packet{};
    sockaddr_in from{};
    socklen_t length = sizeof(from);
    const ssize_t count = recvfrom(m_fd.get(), static_cast<void*>(&packet), sizeof(packet), 0,
                                   reinterpret_cast<sockaddr*>(&from), &length);
    if (count < 0) break;
    receive(packet, static_cast<size_t>(count), from);
  }
  const auto waits = [](const auto& entry) {
    return !entry.second.sent.empty() || !entry.second.queued.empty();
  };
  if (std::count_if(m_peers.begin(), m_peers.end(), waits) >= 8) die(Flaw::WAITS_FOR_ACKS);
  if (m_dead) return;
  for (auto& [key, peer] : m_peers) pump(peer);
}

void FlawedUdpService::receive(UdpPkg& packet, size_t count, const sockaddr_in& from) {
  if (!isIntact(packet, static_cast<int64_t>(count))) {
    if (!is(Flaw::BELIEVES_CHECKSUMS) || count < udp::kHeaderLength) return;
    packet.dataLength = static_cast<uint16_t>(count - udp::kHeaderLength);
  }
  Peer& peer = m_peers[is(Flaw::MIXES_PEERS) ? 0 : peerKey(from)];
  peer.address = from;
  switch (packetType(packet.type)) {
    case PACKET_SYN:
      if (peer.expected == 0 || !is(Flaw::OPENS_ONCE)) peer.expected = packet.sequence + 1;
      return acknowledge(peer, packet, packet.offset);
    case PACKET_DATA:
      return receiveData(peer, packet);
    case PACKET_ACK:
      peer.sent.erase(packet.sequence);
      return;
    case PACKET_FIN:
      if (is(Flaw::NEVER_CLOSES)) return;
      if (peer.expected != 0 && packet.sequence != peer.expected) return;
      peer.expected = 0;
      return acknowledge(peer, packet, packet.offset);
    case PACKET_OTHER:
      return;
  }
}

void FlawedUdpService::receiveData(Peer& peer, const UdpPkg& packet) {
  const uint32_t end = packet.offset + packet.dataLength;
  if (peer.expected == 0) {
    if (is(Flaw::ACKS_UNOPENED)) acknowledge(peer, packet, end);
    return;
  }
  if (packet.totalLength > kLongMessage) die(Flaw::DIES_OF_TOTAL_LENGTHS);
  const bool isAhead = static_cast<int32_t>(packet.sequence - peer.expected) > 0;
  const bool isOld = peer.expected - packet.sequence > udp::kReacknowledged;
  if (isAhead ? !is(Flaw::ACKS_AHEAD) : isOld) return;
  if (packet.sequence == peer.expected) {
    ++peer.expected;
    if (packet.offset == 0) peer.message.clear();
    if (packet.offset == peer.message.size()) {
      peer.message.append(reinterpret_cast<const char*>(packet.payload), packet.dataLength);
    }
    if (peer.message.size() == packet.totalLength) answer(peer, std::exchange(peer.message, ""));
  }
  acknowledge(peer, packet, end);
}

void FlawedUdpService::acknowledge(Peer& peer, const UdpPkg& packet, uint32_t offset) {
  const bool isNew = peer.acked.insert(packet.sequence).second || packet.type != PACKET_DATA;
  if (is(Flaw::ACKS_ONCE) && !isNew) return;
  const bool isBare = is(Flaw::ACKS_WITHOUT_OFFSET);
  send(peer, UdpPeer::sealed(PACKET_ACK, packet.sequence, "", isBare ? 0 : offset,
                             isBare ? 0 : packet.totalLength, packet.sessionId));
}

void FlawedUdpService::answer(Peer& peer, const std::string& message) {
  const auto* const header = reinterpret_cast<const uint8_t*>(message.data());
  if (message.size() < kHeaderBytes || read32le(header) != kHeaderMagic ||
      read32le(header + request_header::kDataLen) != message.size() - kHeaderBytes) {
    die(Flaw::DIES_OF_BAD_MESSAGES);
    return;
  }
  if (peer.sequence == 0) {
    peer.sequence = udp::kFirstSequence;
    peer.sent[peer.sequence].datagram = UdpPeer::sealed(PACKET_SYN, peer.sequence);
  }
  peer.queued.push_back(replyPacket(read16le(header + request_header::kFuncid), 0,
                                    read64le(header + request_header::kTimestamp)));
}

/// Sends what is due, and what has a place in the window.
void FlawedUdpService::pump(Peer& peer) {
  while (!peer.queued.empty()) {
    // A SYN that is not acknowledged takes no place.
    const auto first = peer.sent.upper_bound(udp::kFirstSequence);
    const uint32_t lowest = first == peer.sent.end() ? peer.sequence + 1 : first->first;
    if (peer.sequence + 1 > lowest + udp::kSequenceSpan && !is(Flaw::KNOWS_NO_WINDOW)) break;
    const std::string reply = std::move(peer.queued.front());
    peer.queued.pop_front();
    ++peer.sequence;
    peer.sent[peer.sequence].datagram = UdpPeer::sealed(PACKET_DATA, peer.sequence, reply, 0,
                                                        static_cast<uint32_t>(reply.size()), peer.sequence);
  }
  const int64_t now = client::steadyMs();
  for (auto& [sequence, sent] : peer.sent) {
    if (sent.dueMs > now || sent.times > (is(Flaw::SENDS_ONCE) ? 0 : udp::kMaxRetransmissions)) continue;
    ++sent.times;
    sent.dueMs = now + kResendMs;
    send(peer, sent.datagram);
  }
}

void FlawedUdpService::send(const Peer& peer, std::string datagram) const {
  if (is(Flaw::WRONG_CHECKSUMS)) datagram[4] = static_cast<char>(datagram[4] ^ 1);
  sendto(m_fd.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&peer.address),
         sizeof(peer.address));
}

}  // namespace check
