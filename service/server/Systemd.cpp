#include "service/server/Systemd.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "shared/Text.h"

// The environment is looked at before any other thread is there.
// NOLINTBEGIN(concurrency-mt-unsafe)

namespace service {
namespace {

constexpr int kFirstHandedOver = 3;

std::string variable(const char* name) {
  const char* const value = getenv(name);
  return value != nullptr ? value : "";
}

/// The abstract name that a socket listens on; empty when it is no such socket.
std::string listensOn(int fd) {
  int listens = 0, type = 0;
  socklen_t size = sizeof(int);
  if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0) return "";
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM) return "";
  sockaddr_un address{};
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "";
  constexpr size_t kFront = offsetof(sockaddr_un, sun_path) + 1;
  if (address.sun_family != AF_UNIX || length <= kFront || address.sun_path[0] != '\0') return "";
  return std::string(address.sun_path + 1, length - kFront);
}

}  // namespace

void notifySystemd(const std::string& state) {
  const std::string path = variable("NOTIFY_SOCKET");
  sockaddr_un address{};
  if (path.size() < 2 || path.size() >= sizeof(address.sun_path)) return;
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.data(), path.size());
  if (path[0] == '@') address.sun_path[0] = '\0';
  const shared::UniqueFd socket(openSocket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
         length);
}

shared::UniqueFd socketFromSystemd(std::string& name, std::string& problem) {
  int64_t pid = 0, count = 0;
  const bool isForUs = shared::parseNumber(variable("LISTEN_PID"), 1, INT32_MAX, pid) && pid == getpid() &&
                       shared::parseNumber(variable("LISTEN_FDS"), 1, INT32_MAX, count);
  for (const char* const name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) unsetenv(name);
  if (!isForUs) return shared::UniqueFd();
  const std::string listened = listensOn(kFirstHandedOver);
  if (count != 1 || listened.empty()) {
    problem =
        "what systemd hands over is to be one listening stream socket with an abstract name, as in "
        "ListenStream=@tarnbooster";
    return shared::UniqueFd();
  }
  fcntl(kFirstHandedOver, F_SETFD, FD_CLOEXEC);
  fcntl(kFirstHandedOver, F_SETFL, fcntl(kFirstHandedOver, F_GETFL) | O_NONBLOCK);
  name = listened;
  return shared::UniqueFd(kFirstHandedOver);
}

// NOLINTEND(concurrency-mt-unsafe)

}  // namespace service
