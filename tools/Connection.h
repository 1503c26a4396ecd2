// The tool's engine: one of the library's two, connected to a service.
#pragma once

#include <netinet/in.h>

#include <memory>
#include <string>

#include "wire/IClientEngine.h"

class ClientProtocal;

namespace tool {

/// Connects to a service on the local socket, by its abstract name. Null when nobody listens there.
/// owner  takes the replies; must live as long as the process
std::shared_ptr<IClientEngine> connectSocket(const std::string& name, ClientProtocal* owner);

/// Sets up an engine for a service at an IPv4 address and port. Null when no socket is to be had; nothing
/// tells here whether a service is there.
std::shared_ptr<IClientEngine> connectUdp(const sockaddr_in& address, ClientProtocal* owner);

}  // namespace tool
