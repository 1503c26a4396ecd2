#include "tools/client/Connection.h"

#include <chrono>

#include "tools/client/LocalConnection.h"
#include "tools/client/UdpConnection.h"

namespace client {

int64_t steadyUs() {
  using std::chrono::steady_clock;
  return std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now().time_since_epoch())
      .count();
}

int64_t steadyMs() {
  return steadyUs() / 1000;
}

std::unique_ptr<Connection> connectTo(const Target& target, std::string& problem) {
  if (target.isUdp()) return UdpConnection::open(target.udp, problem);
  return LocalConnection::open(target.name, problem);
}

}  // namespace client
