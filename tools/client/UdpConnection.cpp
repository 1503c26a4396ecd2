#include "tools/client/UdpConnection.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

#include "base/descriptor.h"

namespace client {
namespace {

/// How often to look whether the transport takes another message: it tells when one was delivered, not when
/// one has left its queue. In milliseconds.
constexpr int64_t kLookMs = 5;

}  // namespace

UdpConnection::Port::Port() : m_wake(keepAboveStdio(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

bool UdpConnection::Port::start(const sockaddr_in& local) {
  const auto entry = [](void* self) -> void* {
    static_cast<Port*>(self)->loop();
    return nullptr;
  };
  return m_wake && createSocket(local, "0.0.0.0", 0) == 0 && startThread(entry, this) == 0;
}

int UdpConnection::Port::recvEvent(int event, const sockaddr_in& /*peer*/, int64_t /*sessionId*/,
                                   const uint8_t* data, uint32_t len) {
  {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_events.emplace_back(event, data != nullptr ? std::string(data, data + len) : "");
  }
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(m_wake.get(), &one, sizeof(one));
  return 0;
}

std::pair<int, std::string> UdpConnection::Port::take() {
  const std::lock_guard<std::mutex> lock(m_lock);
  if (m_events.empty()) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(m_wake.get(), &count, sizeof(count));
    return {0, ""};
  }
  auto event = std::move(m_events.front());
  m_events.pop_front();
  return event;
}

std::unique_ptr<UdpConnection> UdpConnection::open(const sockaddr_in& service, std::string& problem) {
  std::unique_ptr<UdpConnection> made(new UdpConnection(service));
  sockaddr_in any{};
  any.sin_family = AF_INET;
  if (made->m_port.start(any)) return made;
  problem = "no UDP socket is to be had";
  return nullptr;
}

void UdpConnection::send(std::string_view packet) {
  m_output.emplace_back(packet);
  write();
}

void UdpConnection::write() {
  while (!m_output.empty()) {
    const auto* const bytes = reinterpret_cast<const uint8_t*>(m_output.front().data());
    if (!m_port.trySend(m_service, bytes, static_cast<uint32_t>(m_output.front().size()))) return;
    m_output.pop_front();
  }
}

Event UdpConnection::next(Reply& reply, int64_t deadlineMs, int watched) {
  while (true) {
    write();
    for (auto [event, message] = m_port.take(); event != 0; std::tie(event, message) = m_port.take()) {
      if (event == UDP_EVENT_TIMEOUT) return Event::GIVEN_UP;
      if (event != UDP_EVENT_DATA) continue;
      m_problem = readReplyMessage(message, reply);
      return m_problem.empty() ? Event::REPLY : Event::BROKEN;
    }
    pollfd ready[] = {{m_port.fd(), POLLIN, 0}, {watched, POLLIN, 0}};
    int64_t left = std::clamp<int64_t>(deadlineMs - steadyMs(), 0, INT32_MAX);
    if (!m_output.empty()) left = std::min(left, kLookMs);
    const int count = poll(ready, 2, static_cast<int>(left));
    if (count < 0) return Event::INTERRUPTED;
    if (count == 0 && steadyMs() >= deadlineMs) return Event::TIME_OUT;
    if (ready[0].revents == 0 && ready[1].revents != 0) return Event::WATCHED;
  }
}

}  // namespace client
