#include "tools/record/UdpRelay.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/descriptor.h"
#include "shared/Text.h"
#include "tools/record/ExportedPdu.h"
#include "udp/udp_packet.h"

namespace record {
namespace {

using pcapng::Direction;

constexpr int kDatagramsAtOnce = 64;  // of one socket, before the others have their turn

void send(int fd, const sockaddr_in& to, std::string_view bytes) {
  // What fails is a datagram that was lost.
  sendto(fd, bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
}

}  // namespace

/// A socket that the loop watches.
struct UdpRelay::Socket {
  Socket(Loop& owner, shared::UniqueFd socket) : loop(owner), fd(std::move(socket)) {}
  ~Socket() { loop.remove(watch); }

  Loop& loop;
  const shared::UniqueFd fd;
  uint64_t watch = 0;
};

struct UdpRelay::Application {
  sockaddr_in address{};
  size_t interface = 0;
  std::unique_ptr<Socket> back;                       // towards the service
  std::map<uint64_t, std::unique_ptr<Socket>> doors;  // towards the application, by the service's address
  std::list<uint64_t>::iterator heard;                // its place in m_heard
};

UdpRelay::UdpRelay(const sockaddr_in& service, Recorder& recorder)
    : m_service(service), m_recorder(recorder) {}

UdpRelay::~UdpRelay() = default;

/// A socket bound to `local`, whose handler is called while something can be read. Null with errno.
std::unique_ptr<UdpRelay::Socket> UdpRelay::open(const sockaddr_in& local, std::function<void()> handler) {
  auto socket = std::make_unique<Socket>(
      m_recorder.loop(), shared::UniqueFd(openSocket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)));
  const auto* const address = reinterpret_cast<const sockaddr*>(&local);
  if (!socket->fd || bind(socket->fd.get(), address, sizeof(local)) != 0) return nullptr;
  socket->watch = m_recorder.loop().add(socket->fd.get(), EPOLLIN,
                                        [handler = std::move(handler)](uint32_t) { handler(); });
  if (socket->watch == 0) return nullptr;
  return socket;
}

bool UdpRelay::start(const sockaddr_in& as, std::string& problem) {
  m_front = open(as, [this] {
    receive(*m_front,
            [this](const sockaddr_in& from, std::string_view bytes) { fromApplication(from, bytes); });
  });
  socklen_t length = sizeof(m_address);
  if (m_front != nullptr &&
      getsockname(m_front->fd.get(), reinterpret_cast<sockaddr*>(&m_address), &length) == 0) {
    return true;
  }
  problem = "cannot listen on udp " + addressText(as) + ": " + shared::errorText(errno);
  return false;
}

/// Reads what there is, and calls take(from, bytes) for each datagram.
template <class Take>
void UdpRelay::receive(const Socket& socket, Take take) {
  std::string& buffer = m_recorder.buffer();
  for (int count = 0; count < kDatagramsAtOnce; ++count) {
    sockaddr_in from{};
    socklen_t length = sizeof(from);
    const ssize_t got = retryEintr([&] {
      return recvfrom(socket.fd.get(), buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from),
                      &length);
    });
    if (got < 0) return;
    take(from, std::string_view(buffer.data(), static_cast<size_t>(got)));
  }
}

/// The application at an address, made when it is new; null when there are no descriptors for it.
UdpRelay::Application* UdpRelay::applicationOf(const sockaddr_in& address) {
  const uint64_t key = peerKey(address);
  const auto found = m_applications.find(key);
  if (found != m_applications.end()) {
    m_heard.splice(m_heard.end(), m_heard, found->second->heard);
    return found->second.get();
  }
  if (m_applications.size() >= kMaxUdpApplications) {
    m_applications.erase(m_heard.front());
    m_heard.pop_front();
  }
  auto application = std::make_unique<Application>();
  Application* const made = application.get();
  sockaddr_in any{};
  any.sin_family = AF_INET;
  made->back = open(any, [this, made] {
    receive(*made->back,
            [&](const sockaddr_in& from, std::string_view bytes) { fromService(*made, from, bytes); });
  });
  if (made->back == nullptr) {
    m_recorder.say("cannot take an application now: " + shared::errorText(errno));
    return nullptr;
  }
  made->address = address;
  made->interface = m_recorder.file().addInterface(
      "udp " + addressText(m_service),
      "application " + std::to_string(++m_recorder.counts().connections) + ": " + addressText(address));
  made->heard = m_heard.insert(m_heard.end(), key);
  m_applications[key] = std::move(application);
  return made;
}

void UdpRelay::fromApplication(const sockaddr_in& from, std::string_view bytes) {
  Application* const application = applicationOf(from);
  if (application == nullptr) return;
  send(application->back->fd.get(), m_service, bytes);
  write(*application, Direction::ToService, m_service, bytes);
}

void UdpRelay::fromService(Application& application, const sockaddr_in& from, std::string_view bytes) {
  if (from.sin_addr.s_addr != m_service.sin_addr.s_addr) return;  // a stranger
  int fd = m_front->fd.get();
  if (from.sin_port != m_service.sin_port) {
    const uint64_t key = peerKey(from);
    if (application.doors.count(key) == 0) {
      if (application.doors.size() >= kMaxUdpDoors) application.doors.erase(application.doors.begin());
      sockaddr_in local = m_address;
      local.sin_port = 0;
      auto door = open(local, [this, &application, key, from] {
        receive(*application.doors[key], [&](const sockaddr_in& sender, std::string_view answer) {
          if (peerKey(sender) != peerKey(application.address)) return;  // a stranger
          send(application.back->fd.get(), from, answer);
          write(application, Direction::ToService, from, answer);
        });
      });
      if (door == nullptr) return m_recorder.say("no descriptors left: raise the limit (ulimit -n)");
      application.doors[key] = std::move(door);
    }
    fd = application.doors[key]->fd.get();
  }
  send(fd, application.address, bytes);
  write(application, Direction::FromService, from, bytes);
}

void UdpRelay::write(const Application& application, Direction direction, const sockaddr_in& service,
                     std::string_view bytes) {
  const bool toService = direction == Direction::ToService;
  ++(toService ? m_recorder.counts().requests : m_recorder.counts().replies);
  m_recorder.file().add(application.interface, nowNs(), direction,
                        toService ? datagramTags(application.address, service, direction)
                                  : datagramTags(service, application.address, direction),
                        bytes);
}

bool UdpRelay::run(int end) {
  const bool good = m_recorder.run(end, [] { return -1; });
  m_recorder.finish();
  return good;
}

}  // namespace record
