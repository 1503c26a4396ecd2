#include "udp/udp_packet.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

namespace {

constexpr std::array<uint32_t, 256> makeCrcTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t index = 0; index < table.size(); ++index) {
    uint32_t entry = index;
    for (int bit = 0; bit < 8; ++bit) entry = (entry & 1) != 0 ? entry >> 1 ^ 0xEDB88320 : entry >> 1;
    table[index] = entry;
  }
  return table;
}
constexpr std::array<uint32_t, 256> kCrcTable = makeCrcTable();

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

bool isIntact(const UdpPkg& packet, int64_t received) {
  if (received < 1 || packet.dataLength > udp::kMaxPayload || packet.wireLength() > received) return false;
  UdpPkg unsealed;
  memcpy(&unsealed, &packet, packet.wireLength());
  unsealed.checksum = 0;
  return packetCrc(unsealed) == packet.checksum;
}

uint32_t crc32(const uint8_t* bytes, uint32_t length) {
  uint32_t crc = 0xFFFFFFFF;
  for (uint32_t index = 0; index < length; ++index) crc = kCrcTable[(crc ^ bytes[index]) & 0xFF] ^ crc >> 8;
  return crc ^ 0xFFFFFFFF;
}

uint64_t peerKey(const sockaddr_in& peer) {
  return static_cast<uint64_t>(peer.sin_port) << 32 | peer.sin_addr.s_addr;
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
