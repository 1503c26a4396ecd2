#include "tools/record/ExportedPdu.h"

#include <arpa/inet.h>

#include <cstring>

namespace record {
namespace {

enum Tag : uint16_t {
  TAG_END = 0,
  TAG_DISSECTOR = 12,
  TAG_IPV4_SOURCE = 20,
  TAG_IPV4_DESTINATION = 21,
  TAG_PORT_TYPE = 24,
  TAG_SOURCE_PORT = 25,
  TAG_DESTINATION_PORT = 26,
  TAG_DIRECTION = 35,
};

constexpr uint32_t kPortTypeNone = 0, kPortTypeUdp = 3;
constexpr uint32_t kSent = 0, kReceived = 1;  // as seen by the application

void appendTag(std::string& out, Tag tag, std::string_view value) {
  const size_t padding = (4 - value.size() % 4) % 4;
  const uint16_t head[] = {htons(tag), htons(static_cast<uint16_t>(value.size() + padding))};
  out.append(reinterpret_cast<const char*>(head), sizeof(head)).append(value).append(padding, '\0');
}

void appendTag(std::string& out, Tag tag, uint32_t number) {
  const uint32_t value = htonl(number);
  appendTag(out, tag, std::string_view(reinterpret_cast<const char*>(&value), sizeof(value)));
}

std::string tags(std::string_view dissector, pcapng::Direction direction, uint32_t portType,
                 uint32_t sourcePort, uint32_t destinationPort, const std::string& addresses = "") {
  std::string out;
  appendTag(out, TAG_DISSECTOR, dissector);
  out += addresses;
  appendTag(out, TAG_PORT_TYPE, portType);
  appendTag(out, TAG_SOURCE_PORT, sourcePort);
  appendTag(out, TAG_DESTINATION_PORT, destinationPort);
  appendTag(out, TAG_DIRECTION, direction == pcapng::Direction::ToService ? kSent : kReceived);
  appendTag(out, TAG_END, "");
  return out;
}

}  // namespace

std::string connectionTags(uint32_t connection, pcapng::Direction direction) {
  const bool toService = direction == pcapng::Direction::ToService;
  return tags(kMessageDissector, direction, kPortTypeNone, toService ? connection : 0,
              toService ? 0 : connection);
}

std::string datagramTags(const sockaddr_in& from, const sockaddr_in& to, pcapng::Direction direction) {
  std::string addresses;
  appendTag(addresses, TAG_IPV4_SOURCE, ntohl(from.sin_addr.s_addr));
  appendTag(addresses, TAG_IPV4_DESTINATION, ntohl(to.sin_addr.s_addr));
  return tags(kDatagramDissector, direction, kPortTypeUdp, ntohs(from.sin_port), ntohs(to.sin_port),
              addresses);
}

bool readTags(std::string_view packet, Tagged& tagged) {
  tagged.dissector.clear();
  while (packet.size() >= 4) {
    uint16_t head[2];
    memcpy(head, packet.data(), sizeof(head));
    const uint16_t tag = ntohs(head[0]), length = ntohs(head[1]);
    packet.remove_prefix(4);
    if (packet.size() < length) return false;
    if (tag == TAG_DISSECTOR) {
      const std::string_view name = packet.substr(0, length);
      tagged.dissector = name.substr(0, name.find('\0'));
    }
    packet.remove_prefix(length);
    if (tag != TAG_END) continue;
    tagged.bytes = packet;
    return true;
  }
  return false;
}

}  // namespace record
