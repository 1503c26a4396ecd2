#include "Connection.h"

#include "UdpClient.h"
#include "client.h"

namespace tool {

std::shared_ptr<IClientEngine> connectSocket(const std::string& name, ClientProtocal* owner) {
  auto engine = std::make_shared<LocalsocketClient>(name, "tarnbooster", owner);
  return LocalsocketClient::start(engine) == 0 ? engine : nullptr;
}

std::shared_ptr<IClientEngine> connectUdp(const std::string& address, int port, ClientProtocal* owner) {
  return startUdpClient(owner, address, port);
}

}  // namespace tool
