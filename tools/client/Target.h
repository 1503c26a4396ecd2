// Where a service is, as people write it.
#pragma once

#include <netinet/in.h>

#include <string>

namespace client {

/// A service's place: an abstract socket name, or an IPv4 address and port.
struct Target {
  std::string name;   // without an '@' in front; empty over UDP
  sockaddr_in udp{};  // counts while the name is empty

  bool isUdp() const { return name.empty(); }
  /// "@demo" or "udp 127.0.0.1:4711", for messages.
  std::string text() const;
};

/// Reads an abstract socket name of 1 to 107 bytes, with or without a leading '@'. Empty text when it is one,
/// otherwise what is wrong with it.
std::string parseName(const std::string& text, Target& target);

/// Reads "ADDRESS:PORT", with a port from 1. Empty text when it is one, otherwise what is wrong with it.
std::string parseUdp(const std::string& text, Target& target);

}  // namespace client
