// IPv4 addresses as people write them.
#pragma once

#include <netinet/in.h>

#include <string>

namespace shared {

/// Reads "ADDRESS:PORT", a dotted IPv4 address and a decimal port (0: of the system's choice). False when it
/// is not one.
bool parseAddress(const std::string& text, sockaddr_in& address);

}  // namespace shared
