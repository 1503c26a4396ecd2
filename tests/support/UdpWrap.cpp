#include "support/UdpWrap.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"

namespace {

constexpr int kSocket = 1000, kReadEnd = 1001, kWriteEnd = 1002;
bool isOurs(int fd) {
  return fd >= kSocket && fd <= kWriteEnd;
}

// Lines as their formats, without what is in front: cheap, and the same whatever the addresses.
int logFormat(int priority, const char*, const char* format, ...) {
  const char* message = strchr(format, '"') + 1;
  g_wrap.trace += std::to_string(priority) + std::string(message, strlen(message) - 1) + "\n";
  return 1;
}
const bool g_installed = (logFunc = logFormat) != nullptr;

}  // namespace

extern "C" {

ssize_t __real_write(int fd, const void* bytes, size_t length);
int __real_close(int fd);

int __wrap_socket(int, int, int) {
  return kSocket;
}
int __wrap_bind(int, const sockaddr*, socklen_t) {
  return 0;
}
int __wrap_getsockname(int, sockaddr*, socklen_t*) {
  return 0;
}
int __wrap_pipe2(int ends[2], int) {
  return ends[0] = kReadEnd, ends[1] = kWriteEnd, 0;
}
int __wrap_close(int fd) {
  return isOurs(fd) ? 0 : __real_close(fd);
}
ssize_t __wrap_write(int fd, const void* bytes, size_t length) {
  return isOurs(fd) ? static_cast<ssize_t>(length) : __real_write(fd, bytes, length);
}

/// Only the socket is ever readable. A wait is told when there is nothing to wait for.
int __wrap_select(int, fd_set* readable, fd_set*, fd_set*, timeval* limit) {
  FD_CLR(kReadEnd, readable);
  if (!g_wrap.inbox.empty()) return 1;
  FD_CLR(kSocket, readable);
  const int64_t wait = limit == nullptr ? -1 : limit->tv_sec * 1000 + limit->tv_usec / 1000;
  g_wrap.trace += "wait " + std::to_string(wait) + "\n";
  return 0;
}

ssize_t __wrap_sendto(int, const void* bytes, size_t length, int, const sockaddr* to, socklen_t) {
  const auto& address = *reinterpret_cast<const sockaddr_in*>(to);
  const std::string datagram(static_cast<const char*>(bytes), length);
  if (datagram[1] != 2) g_wrap.sent.emplace_back(address, datagram);
  g_wrap.trace += traceOfDatagram(ntohs(address.sin_port), datagram);
  return static_cast<ssize_t>(length);
}

ssize_t __wrap_recvfrom(int, void* bytes, size_t size, int, sockaddr* from, socklen_t*) {
  if (g_wrap.inbox.empty()) return errno = EAGAIN, -1;
  const auto [address, datagram] = g_wrap.inbox.front();
  g_wrap.inbox.pop_front();
  memcpy(from, &address, sizeof(address));
  const size_t length = std::min(size, datagram.size());
  memcpy(bytes, datagram.data(), length);
  return static_cast<ssize_t>(length);
}
}
