#include "tools/check/UdpPeer.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/clock.h"
#include "base/descriptor.h"
#include "wire/Funcid.h"

namespace check {
namespace {

using client::steadyMs;

constexpr int64_t kResendMs = 250;

const UdpPkg& packetOf(const std::string& datagram) {
  return *reinterpret_cast<const UdpPkg*>(datagram.data());
}

}  // namespace

UdpPeer::UdpPeer(Check& check) : m_check(check), m_fd(openSocket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
  sockaddr_in any{};
  any.sin_family = AF_INET;
  if (!m_fd || bind(m_fd.get(), reinterpret_cast<sockaddr*>(&any), sizeof(any)) != 0) {
    check.skip("no UDP socket is to be had");
  }
}

std::string UdpPeer::sealed(PacketType type, uint32_t sequence, const std::string& payload, uint32_t offset,
                            uint32_t totalLength, int64_t sessionId) {
  const auto packet = newPacket();
  packet->dataLength = static_cast<uint16_t>(payload.size());
  packet->offset = offset;
  packet->totalLength = totalLength;
  packet->sessionId = sessionId;
  memcpy(packet->payload, payload.data(), payload.size());
  sealPacket(*packet, type, sequence);
  return std::string(reinterpret_cast<const char*>(packet.get()), packet->wireLength());
}

std::vector<std::string> UdpPeer::cut(const std::string& message) {
  std::vector<std::string> datagrams;
  const int64_t sessionId = nowUs();
  for (size_t at = 0; at < message.size(); at += udp::kMaxPayload) {
    datagrams.push_back(sealed(PACKET_DATA, ++m_sequence, message.substr(at, udp::kMaxPayload),
                               static_cast<uint32_t>(at), static_cast<uint32_t>(message.size()), sessionId));
  }
  return datagrams;
}

void UdpPeer::send(const std::string& datagram) {
  const sockaddr_in& service = m_check.settings().target.udp;
  sendto(m_fd.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&service),
         sizeof(service));
}

void UdpPeer::open() {
  const std::string syn = sealed(PACKET_SYN, m_sequence);
  for (const int64_t end = steadyMs() + m_check.settings().answerWithinMs; steadyMs() < end;) {
    send(syn);
    if (ackOf(m_sequence, kResendMs)) return;
  }
  m_check.fail("a SYN is not acknowledged");
}

void UdpPeer::sendReliably(const std::vector<std::string>& datagrams) {
  for (const std::string& datagram : datagrams) {
    const uint32_t sequence = packetOf(datagram).sequence;
    bool acknowledged = false;
    for (const int64_t end = steadyMs() + m_check.settings().answerWithinMs;
         !acknowledged && steadyMs() < end;) {
      send(datagram);
      acknowledged = ackOf(sequence, kResendMs).has_value();
    }
    if (!acknowledged) m_check.fail(fmt::format("DATA {} is not acknowledged", sequence));
  }
}

void UdpPeer::request(uint16_t funcid, const std::string& body) {
  sendReliably(cut(client::packRequest(funcid, body, 77, 1)));
}

std::optional<UdpPkg> UdpPeer::ackOf(uint32_t sequence, int64_t ms) {
  const int64_t end = steadyMs() + ms;
  while (m_acks.count(sequence) == 0 && step(end)) continue;
  const auto found = m_acks.find(sequence);
  if (found == m_acks.end()) return std::nullopt;
  const UdpPkg ack = found->second;
  m_acks.erase(found);
  return ack;
}

std::optional<client::Reply> UdpPeer::reply(int64_t ms) {
  const int64_t end = steadyMs() + ms;
  while (m_messages.empty() && step(end)) continue;
  if (m_messages.empty()) return std::nullopt;
  client::Reply reply;
  const std::string problem = client::readReplyMessage(m_messages.front(), reply);
  m_messages.pop_front();
  if (!problem.empty()) m_check.fail(problem);
  return reply;
}

void UdpPeer::listen(int64_t ms) {
  for (const int64_t end = steadyMs() + ms; step(end);) continue;
}

bool UdpPeer::step(int64_t deadlineMs) {
  pollfd ready{m_fd.get(), POLLIN, 0};
  const auto left = std::clamp<int64_t>(deadlineMs - steadyMs(), 0, INT32_MAX);
  if (poll(&ready, 1, static_cast<int>(left)) != 1) return false;
  const auto packet = newPacket();
  socklen_t length = sizeof(m_from);
  const ssize_t count =
      recvfrom(m_fd.get(), packet.get(), sizeof(*packet), 0, reinterpret_cast<sockaddr*>(&m_from), &length);
  if (count < 0) return true;
  if (!isIntact(*packet, count))
    m_check.fail(fmt::format("a datagram of {} bytes with a wrong checksum", count));
  receive(*packet);
  return true;
}

void UdpPeer::receive(const UdpPkg& packet) {
  switch (packetType(packet.type)) {
    case PACKET_ACK:
      m_acks[packet.sequence] = packet;
      ++m_ackCounts[packet.sequence];
      return;
    case PACKET_SYN:
      m_expected = packet.sequence + 1;
      m_message.clear();
      return acknowledge(packet, packet.offset);
    case PACKET_DATA:
      return receiveData(packet);
    case PACKET_FIN:
      return acknowledge(packet, packet.offset);
    case PACKET_OTHER:
      m_check.fail(fmt::format("a datagram of type {}", packet.type));
  }
}

void UdpPeer::receiveData(const UdpPkg& packet) {
  ++m_seen[packet.sequence];
  if (!m_acknowledges || m_expected == 0 || packet.sequence > m_expected) return;
  if (packet.sequence == m_expected) {
    ++m_expected;
    if (packet.offset != m_message.size()) {
      m_check.fail(
          fmt::format("a piece of a reply with offset {} where {} follows", packet.offset, m_message.size()));
    }
    m_message.append(reinterpret_cast<const char*>(packet.payload), packet.dataLength);
    if (m_message.size() >= packet.totalLength) m_messages.push_back(std::exchange(m_message, ""));
  }
  acknowledge(packet, packet.offset + packet.dataLength);
}

void UdpPeer::acknowledge(const UdpPkg& packet, uint32_t offset) {
  if (!m_acknowledges) return;
  const std::string ack =
      sealed(PACKET_ACK, packet.sequence, "", offset, packet.totalLength, packet.sessionId);
  sendto(m_fd.get(), ack.data(), ack.size(), 0, reinterpret_cast<const sockaddr*>(&m_from), sizeof(m_from));
}

void udpAlive(Check& check) {
  UdpPeer peer(check);
  peer.open();
  peer.request(FUNCID_CHECK_PERMISSION);
  if (!peer.reply(check.settings().answerWithinMs))
    check.fail("afterwards a new peer's 1001 was not answered");
}

}  // namespace check
