#include "shared/AbstractSocket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "base/descriptor.h"
#include "shared/Text.h"

namespace shared {
namespace {

/// A name as an address; it must fit.
struct AbstractAddress {
  explicit AbstractAddress(const std::string& name)
      : length(static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())) {
    static_assert(sizeof(address.sun_path) - 1 == kMaxNameBytes, "one byte marks the abstract namespace");
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size());
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }

  sockaddr_un address{};
  const socklen_t length;
};

}  // namespace

std::string bareName(const std::string& text) {
  return text.substr(!text.empty() && text[0] == '@' ? 1 : 0);
}

std::string nameProblem(const std::string& name) {
  if (name.empty()) return "the name is empty: choose one, as in --name tarnbooster";
  if (name.size() <= kMaxNameBytes) return "";
  return "the name has " + std::to_string(name.size()) + " bytes, at most " + std::to_string(kMaxNameBytes) +
         " fit: choose a shorter one";
}

UniqueFd listenOn(const std::string& name, std::string& problem) {
  problem = nameProblem(name);
  if (!problem.empty()) return UniqueFd();
  const AbstractAddress address(name);
  UniqueFd socket(openSocket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
  if (!socket || bind(socket.get(), address.get(), address.length) != 0 ||
      listen(socket.get(), SOMAXCONN) != 0) {
    problem = errno == EADDRINUSE ? "the name @" + name +
                                        " is in use: end the program that holds it (is another service "
                                        "running?), or choose another name"
                                  : "cannot listen on @" + name + ": " + errorText(errno);
    return UniqueFd();
  }
  return socket;
}

UniqueFd connectTo(const std::string& name) {
  errno = EINVAL;
  if (name.empty() || name.size() > kMaxNameBytes) return UniqueFd();
  const AbstractAddress address(name);
  UniqueFd socket(openSocket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
  return socket && connect(socket.get(), address.get(), address.length) == 0 ? std::move(socket) : UniqueFd();
}

}  // namespace shared
