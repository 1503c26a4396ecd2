#include "udp/udp_packet.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "base/clock.h"
#include "udp/crc32.h"

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

namespace {

uint32_t packetCrc(const UdpPkg& packet) {
  return crc32(reinterpret_cast<const uint8_t*>(&packet), packet.wireLength());
}

}  // namespace

PacketType packetType(uint8_t number) {
  switch (static_cast<PacketType>(number)) {
    case PACKET_DATA:
    case PACKET_ACK:
    case PACKET_SYN:
    case PACKET_FIN:
      return static_cast<PacketType>(number);
    case PACKET_OTHER:
      break;
  }
  return PACKET_OTHER;
}

const char* packetTypeName(uint8_t number) {
  switch (packetType(number)) {
    case PACKET_DATA:
      return "DATA";
    case PACKET_ACK:
      return "ACK";
    case PACKET_SYN:
      return "SYN";
    case PACKET_FIN:
      return "FIN";
    case PACKET_OTHER:
      break;
  }
  return "ERR_TYPE";
}

std::unique_ptr<UdpPkg> newPacket() {
  std::unique_ptr<UdpPkg> packet(new UdpPkg);
  clearHeader(*packet);
  return packet;
}

std::unique_ptr<UdpPkg> PacketPool::take() {
  if (m_spare.empty()) return newPacket();
  std::unique_ptr<UdpPkg> packet = std::move(m_spare.back());
  m_spare.pop_back();
  clearHeader(*packet);
  return packet;
}

void PacketPool::giveBack(std::unique_ptr<UdpPkg> packet) {
  if (m_spare.size() < udp::kSparePackets) m_spare.push_back(std::move(packet));
}

void clearHeader(UdpPkg& packet) {
  memset(&packet, 0, udp::kHeaderLength);
}

void sealPacket(UdpPkg& packet, PacketType type, uint32_t sequence) {
  packet.sequence = sequence;
  packet.type = type;
  packet.version = udp::kVersion;
  packet.checksum = 0;
  packet.checksum = packetCrc(packet);
}

bool isIntact(UdpPkg& packet, int64_t received) {
  if (received < 1 || packet.dataLength > udp::kMaxPayload || packet.wireLength() > received) return false;
  const uint32_t checksum = packet.checksum;
  packet.checksum = 0;
  if (packetCrc(packet) == checksum) return true;
  packet.checksum = checksum;
  return false;
}

uint64_t peerKey(const sockaddr_in& peer) {
  return static_cast<uint64_t>(peer.sin_port) << 32 | peer.sin_addr.s_addr;
}

PeerHash::PeerHash() : m_seed(static_cast<uint64_t>(nowUs()) << 20 ^ reinterpret_cast<uintptr_t>(this)) {}

size_t PeerHash::operator()(uint64_t key) const {
  uint64_t mixed = (key ^ m_seed) * 0x9E3779B97F4A7C15;
  mixed = (mixed ^ mixed >> 32) * 0xD6E8FEB86659FD93;
  return mixed ^ mixed >> 32;
}

std::string addressText(const sockaddr_in& address) {
  uint8_t bytes[4];
  memcpy(bytes, &address.sin_addr.s_addr, sizeof(bytes));
  char text[32];
  snprintf(text, sizeof(text), "%d.%d.%d.%d:%d", bytes[0], bytes[1], bytes[2], bytes[3],
           ntohs(address.sin_port));
  return text;
}

std::string packetText(const UdpPkg& packet) {
  char text[512];
  snprintf(text, sizeof(text), "P[%x v:%d t:%d,%s l:%d dl:%d c:0x%x tl:%d of:%d s:%d sid:%d]",
           addressBits(&packet), packet.version, packet.type, packetTypeName(packet.type),
           static_cast<int>(packet.wireLength()), packet.dataLength, static_cast<unsigned>(packet.checksum),
           static_cast<int>(packet.totalLength), static_cast<int>(packet.offset),
           static_cast<int>(packet.sequence), static_cast<int>(packet.sessionId));
  return text;
}
