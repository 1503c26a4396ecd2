#include "tools/client/LocalConnection.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "base/descriptor.h"
#include "shared/AbstractSocket.h"
#include "shared/Text.h"

namespace client {
namespace {

constexpr int64_t kConnectMs = 2000;

std::string connectProblem(const std::string& name, int error) {
  const std::string shown = shared::printable(name);
  if (error == ECONNREFUSED) return fmt::format("no service at @{}: is it running?", shown);
  if (error == EAGAIN) return fmt::format("the service at @{} accepts no connections", shown);
  return fmt::format("cannot connect to @{}: {}", shown, shared::errorText(error));
}

}  // namespace

std::unique_ptr<LocalConnection> LocalConnection::open(const std::string& name, std::string& problem) {
  const int64_t end = steadyMs() + kConnectMs;
  shared::UniqueFd fd;
  // A full queue of a listener tells nobody when it has a place again.
  while (!(fd = shared::connectTo(name)) && errno == EAGAIN && steadyMs() < end) poll(nullptr, 0, 5);
  const int error = errno;
  if (fd) return std::unique_ptr<LocalConnection>(new LocalConnection(std::move(fd)));
  problem = connectProblem(name, error);
  return nullptr;
}

void LocalConnection::send(std::string_view bytes) {
  if (!m_writable) return;
  m_output.append(bytes);
  write();
}

void LocalConnection::write() {
  while (unsent() > 0) {
    const ssize_t count = retryEintr(
        [&] { return ::send(m_fd.get(), m_output.data() + m_sent, unsent(), MSG_NOSIGNAL | MSG_DONTWAIT); });
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (count < 0) m_writable = false;  // what it has sent before can still be read
    m_sent = count < 0 ? m_output.size() : m_sent + static_cast<size_t>(count);
  }
  m_output.clear();
  m_sent = 0;
}

void LocalConnection::read() {
  char bytes[64 * 1024];
  const ssize_t count = retryEintr([&] { return recv(m_fd.get(), bytes, sizeof(bytes), MSG_DONTWAIT); });
  if (count > 0) return m_replies.append(bytes, static_cast<size_t>(count));
  m_atEnd = count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
}

Event LocalConnection::next(Reply& reply, int64_t deadlineMs, int watched) {
  while (true) {
    const auto result = m_isBroken ? ReplyStream::Result::MORE_NEEDED : m_replies.next(reply, m_problem);
    if (result == ReplyStream::Result::REPLY) return Event::REPLY;
    if (result == ReplyStream::Result::BROKEN) {
      m_isBroken = true;
      return Event::BROKEN;
    }
    if (m_atEnd) return Event::CLOSED;
    // A negative descriptor is passed over.
    pollfd ready[] = {{m_fd.get(), static_cast<short>(unsent() > 0 ? POLLIN | POLLOUT : POLLIN), 0},
                      {watched, POLLIN, 0}};
    const auto left = std::clamp<int64_t>(deadlineMs - steadyMs(), 0, INT32_MAX);
    const int count = poll(ready, 2, static_cast<int>(left));
    if (count < 0) return Event::INTERRUPTED;
    if (count == 0 && steadyMs() >= deadlineMs) return Event::TIME_OUT;
    if ((ready[0].revents & POLLOUT) != 0) write();
    if ((ready[0].revents & ~POLLOUT) != 0) {
      read();
    } else if (ready[1].revents != 0) {
      return Event::WATCHED;
    }
  }
}

void LocalConnection::finishSending() {
  m_writable = false;
  m_output.clear();
  m_sent = 0;
  shutdown(m_fd.get(), SHUT_WR);
}

}  // namespace client
