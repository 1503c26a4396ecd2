// What stands in front of the bytes in a packet of link type 252: big-endian tags that name the dissector and
// say between whom and which way the bytes went.
//
//   tag u16, length u16, value padded to 4; ... ; tag 0, length 0; then the bytes
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/record/Pcapng.h"

namespace record {

/// The dissectors of wireshark/tarnbooster.lua.
constexpr std::string_view kMessageDissector = "tarnbooster";       // requests and replies
constexpr std::string_view kDatagramDissector = "tarnbooster_udp";  // datagrams of the UDP transport

/// The tags of a connection's packets. The connection's number stands in the place of the application's port,
/// and 0 in that of the service's: so a reader can tell the connections apart.
std::string connectionTags(uint32_t connection, pcapng::Direction direction);

/// The tags of a datagram.
std::string datagramTags(const sockaddr_in& from, const sockaddr_in& to, pcapng::Direction direction);

/// A packet's tags taken apart.
struct Tagged {
  std::string dissector;
  std::string_view bytes;  // what follows the tags; points into the packet
};

/// False when the packet's tags do not end.
bool readTags(std::string_view packet, Tagged& tagged);

}  // namespace record
