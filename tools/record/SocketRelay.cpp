#include "tools/record/SocketRelay.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "base/clock.h"
#include "base/descriptor.h"
#include "shared/AbstractSocket.h"
#include "shared/Text.h"
#include "tools/record/ExportedPdu.h"
#include "tools/record/MessageCutter.h"

namespace record {
namespace {

using pcapng::Direction;

constexpr int kReadsAtOnce = 16;     // of one connection, before the others have their turn
constexpr int kRoundsAtEnd = 64;     // of such turns, for a connection whose sender does not stop
constexpr int kAcceptPauseMs = 200;  // without descriptors
constexpr int kConnectPauseMs = 10;  // while the service's backlog is full

/// "pid 4711 (demo), uid 1000", of the process that a connection came from.
std::string peerText(int fd) {
  ucred peer{};
  socklen_t length = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return "pid ?";
  std::string command;
  std::ifstream file("/proc/" + std::to_string(peer.pid) + "/comm");
  std::getline(file, command);
  return "pid " + std::to_string(peer.pid) + " (" + shared::printable(command) + "), uid " +
         std::to_string(peer.uid);
}

}  // namespace

/// One application, and its connection to the service.
class SocketRelay::Connection {
 public:
  Connection(Recorder& recorder, shared::UniqueFd application, const std::string& service)
      : m_recorder(recorder),
        m_application(std::move(application)),
        m_number(static_cast<uint32_t>(++recorder.counts().connections)),
        m_interface(recorder.file().addInterface(
            "@" + service, "connection " + std::to_string(m_number) + ": " + peerText(m_application.get()))),
        m_toService(Direction::ToService, m_number),
        m_fromService(Direction::FromService, m_number) {}

  int application() const { return m_application.get(); }
  int service() const { return m_service.get(); }
  bool isConnected() const { return static_cast<bool>(m_service); }
  void connected(shared::UniqueFd service) { m_service = std::move(service); }

  enum class After { GOES_ON, NOT_DONE, ENDED };  // NOT_DONE: call again, nothing will announce the rest

  /// Does what the events of one side allow.
  After handle(bool ofService, uint32_t events) {
    Way& from = ofService ? m_fromService : m_toService;
    Way& to = ofService ? m_toService : m_fromService;
    if ((events & EPOLLOUT) != 0 && !to.pending.empty()) pump(to);
    if ((events & ~static_cast<uint32_t>(EPOLLOUT)) != 0) pump(from);
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) from.senderGone = true;
    return state();
  }

  /// Does whatever can be done.
  After handleAll() {
    pump(m_toService);
    pump(m_fromService);
    return state();
  }

  /// The connection is given up: what was held back becomes part of the recording.
  void end() {
    for (Way* const way : {&m_toService, &m_fromService}) {
      way->cutter.end([&](std::string_view packet) { write(*way, nowNs(), packet); });
    }
    m_recorder.counts().requests += m_toService.cutter.messages();
    m_recorder.counts().replies += m_fromService.cutter.messages();
  }

  uint64_t watches[2] = {0, 0};  // of the application's and the service's descriptor

 private:
  struct Way {
    Way(Direction way, uint32_t number) : direction(way), tags(connectionTags(number, way)), cutter(way) {}

    const Direction direction;
    const std::string tags;
    MessageCutter cutter;
    std::string pending;      // what was read and could not be passed on yet
    size_t passed = 0;        // bytes of it that were
    bool ended = false;       // nothing more is read
    bool finished = false;    // and its end was passed on
    bool notDone = false;     // there is more to read at once
    bool senderGone = false;  // the sender has closed its descriptor, not only its way
  };

  int senderOf(const Way& way) const { return &way == &m_toService ? application() : service(); }
  int receiverOf(const Way& way) const { return &way == &m_toService ? service() : application(); }

  After state() const {
    const bool gone = (m_toService.senderGone && m_toService.finished) ||
                      (m_fromService.senderGone && m_fromService.finished);
    if (gone || (m_toService.finished && m_fromService.finished)) return After::ENDED;
    return m_toService.notDone || m_fromService.notDone ? After::NOT_DONE : After::GOES_ON;
  }

  void write(const Way& way, int64_t timeNs, std::string_view packet) {
    m_recorder.file().add(m_interface, timeNs, way.direction, way.tags, packet);
  }

  /// Reads and passes on until there is nothing to read, the receiver is full, or it was long enough.
  void pump(Way& way) {
    way.notDone = false;
    std::string& buffer = m_recorder.buffer();
    for (int reads = 0; passOn(way) && !way.ended; ++reads) {
      if (reads == kReadsAtOnce) {
        way.notDone = true;
        return;
      }
      const ssize_t count = retryEintr([&] { return recv(senderOf(way), buffer.data(), buffer.size(), 0); });
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) {  // an error says that the sender is gone: its end as well
        way.ended = true;
        continue;
      }
      const std::string_view bytes(buffer.data(), static_cast<size_t>(count));
      const int64_t now = nowNs();
      send(way, bytes);
      way.cutter.add(bytes, [&](std::string_view packet) { write(way, now, packet); });
    }
    if (!way.ended || way.finished || !way.pending.empty()) return;
    shutdown(receiverOf(way), SHUT_WR);
    way.finished = true;
  }

  /// Passes bytes on; what the receiver has no room for is kept.
  void send(Way& way, std::string_view bytes) {
    const ssize_t count =
        retryEintr([&] { return ::send(receiverOf(way), bytes.data(), bytes.size(), MSG_NOSIGNAL); });
    if (count < 0 && errno != EAGAIN) return receiverGone(way);
    bytes.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
    way.pending.assign(bytes);
    way.passed = 0;
  }

  /// Passes on what was kept. Whether nothing is left of it.
  bool passOn(Way& way) {
    while (!way.pending.empty()) {
      const size_t left = way.pending.size() - way.passed;
      const ssize_t count = retryEintr(
          [&] { return ::send(receiverOf(way), way.pending.data() + way.passed, left, MSG_NOSIGNAL); });
      if (count < 0 && errno == EAGAIN) return false;
      if (count < 0) {
        receiverGone(way);
      } else if (static_cast<size_t>(count) == left) {
        std::string().swap(way.pending);
      } else {
        way.passed += static_cast<size_t>(count);
      }
    }
    return true;
  }

  void receiverGone(Way& way) {
    std::string().swap(way.pending);
    way.ended = way.finished = true;
    shutdown(senderOf(way), SHUT_RD);  // it learns with its next send
  }

  Recorder& m_recorder;
  const shared::UniqueFd m_application;
  shared::UniqueFd m_service;
  const uint32_t m_number;
  const size_t m_interface;
  Way m_toService, m_fromService;
};

SocketRelay::SocketRelay(std::string service, Recorder& recorder)
    : m_service(std::move(service)), m_recorder(recorder) {}

SocketRelay::~SocketRelay() = default;

bool SocketRelay::start(const std::string& as, std::string& problem) {
  m_listener = shared::listenOn(as, problem);
  if (!m_listener) return false;
  m_listening = m_recorder.loop().add(m_listener.get(), EPOLLIN, [this](uint32_t) { accept(); });
  if (m_listening == 0) problem = "epoll: " + shared::errorText(errno);
  return m_listening != 0;
}

void SocketRelay::accept() {
  shared::UniqueFd socket(
      keepAboveStdio(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
  if (!socket) {
    if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return;
    // The waiting application would wake the loop again at once and for ever: look away for a while.
    m_recorder.say("cannot accept an application now: " + shared::errorText(errno));
    m_recorder.loop().change(m_listening, 0);
    m_acceptAgainAt = nowMs() + kAcceptPauseMs;
    return;
  }
  const auto connection = std::make_shared<Connection>(m_recorder, std::move(socket), m_service);
  m_connections.insert(connection);
  m_unfinished.insert(connection);  // to be connected
}

/// What is to be done without an event: connecting, and what was too much for one turn. Returns for how many
/// milliseconds nothing is due.
int SocketRelay::due() {
  int waitMs = -1;
  if (m_acceptAgainAt != 0) {
    waitMs = static_cast<int>(std::clamp<int64_t>(m_acceptAgainAt - nowMs(), 0, kAcceptPauseMs));
    if (waitMs == 0) {
      m_acceptAgainAt = 0;
      m_recorder.loop().change(m_listening, EPOLLIN);
      waitMs = -1;
    }
  }
  for (const auto& connection : std::unordered_set<std::shared_ptr<Connection>>(m_unfinished)) {
    const auto follow = [this, connection](Connection::After after) {
      if (after == Connection::After::NOT_DONE) {
        m_unfinished.insert(connection);
      } else {
        m_unfinished.erase(connection);
      }
      if (after == Connection::After::ENDED) close(connection);
    };
    if (connection->isConnected()) {
      follow(connection->handleAll());
      if (m_unfinished.count(connection) != 0) waitMs = 0;
      continue;
    }
    shared::UniqueFd service = shared::connectTo(m_service);
    if (!service && errno == EAGAIN) {
      if (waitMs != 0) waitMs = kConnectPauseMs;  // an early look costs nothing
      continue;
    }
    if (!service) {
      m_recorder.say("no service at @" + m_service + " (" + shared::errorText(errno) +
                     "): an application was turned away");
      close(connection);
      continue;
    }
    connection->connected(std::move(service));
    constexpr uint32_t kEvents = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    for (const bool ofService : {false, true}) {
      connection->watches[ofService] =
          m_recorder.loop().add(ofService ? connection->service() : connection->application(), kEvents,
                                [follow, ofService, pointer = connection.get()](uint32_t events) {
                                  follow(pointer->handle(ofService, events));
                                });
    }
    m_unfinished.erase(connection);
    if (connection->watches[0] == 0 || connection->watches[1] == 0) close(connection);
  }
  return waitMs;
}

void SocketRelay::close(const std::shared_ptr<Connection>& connection) {
  for (const uint64_t watch : connection->watches) m_recorder.loop().remove(watch);
  connection->end();
  m_unfinished.erase(connection);
  m_connections.erase(connection);
}

bool SocketRelay::run(int end) {
  const bool good = m_recorder.run(end, [this] { return due(); });
  while (!m_connections.empty()) {
    const std::shared_ptr<Connection> connection = *m_connections.begin();
    int rounds = connection->isConnected() ? kRoundsAtEnd : 0;
    while (rounds-- > 0 && connection->handleAll() == Connection::After::NOT_DONE) continue;
    close(connection);
  }
  m_recorder.finish();
  return good;
}

}  // namespace record
