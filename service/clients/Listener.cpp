#include "service/clients/Listener.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "base/descriptor.h"
#include "shared/Text.h"

namespace service {

shared::UniqueFd listenOn(const std::string& name, std::string& problem) {
  sockaddr_un address{};
  static_assert(sizeof(address.sun_path) - 1 == kMaxNameBytes, "one byte marks the abstract namespace");
  if (name.empty() || name.size() > kMaxNameBytes) {
    problem = name.empty() ? "the name is empty: choose one, as in --name tarnbooster"
                           : "the name has " + std::to_string(name.size()) + " bytes, at most " +
                                 std::to_string(kMaxNameBytes) + " fit: choose a shorter one";
    return shared::UniqueFd();
  }
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, name.data(), name.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  shared::UniqueFd socket(openSocket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
  if (!socket || bind(socket.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(socket.get(), SOMAXCONN) != 0) {
    problem = errno == EADDRINUSE ? "the name @" + name +
                                        " is in use: end the program that holds it (is another service "
                                        "running?), or choose another name"
                                  : "cannot listen on @" + name + ": " + shared::errorText(errno);
    return shared::UniqueFd();
  }
  return socket;
}

}  // namespace service
