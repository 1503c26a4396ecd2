// Datagrams and addresses for tests of the UDP transport.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <string>

#include "base/bytes.h"
#include "udp/udp.h"

inline sockaddr_in loopback(uint16_t port = 0) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

inline std::string datagram(int type, uint32_t sequence, uint32_t of = 0, uint32_t tl = 0,
                            const std::string& payload = {}, int64_t sid = 7) {
  UdpPkg packet{};
  packet.dataLength = payload.size();
  packet.totalLength = tl;
  packet.offset = of;
  packet.sessionId = sid;
  std::copy(payload.begin(), payload.end(), packet.payload);
  sealPacket(packet, static_cast<PacketType>(type), sequence);
  return std::string(reinterpret_cast<const char*>(&packet), packet.wireLength());
}

inline uint32_t sequenceOf(const std::string& bytes) {
  return bytes.size() < 28 ? 0 : read32le(reinterpret_cast<const uint8_t*>(bytes.data()) + 16);
}

inline uint32_t totalOf(const std::string& bytes) {
  return read32le(reinterpret_cast<const uint8_t*>(&bytes[8]));
}
inline uint32_t offsetOf(const std::string& bytes) {
  return read32le(reinterpret_cast<const uint8_t*>(&bytes[12]));
}
