#include "Connection.h"

#include <arpa/inet.h>

#include "local/LocalsocketClient.h"
#include "udp/UdpClient.h"

namespace tool {

std::shared_ptr<IClientEngine> connectSocket(const std::string& name, ClientProtocal* owner) {
  auto engine = std::make_shared<LocalsocketClient>(name, "tarnbooster", owner);
  return LocalsocketClient::start(engine) == 0 ? engine : nullptr;
}

std::shared_ptr<IClientEngine> connectUdp(const sockaddr_in& address, ClientProtocal* owner) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
  return startUdpClient(owner, text, ntohs(address.sin_port));
}

}  // namespace tool
