#include "service/server/Server.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "base/descriptor.h"
#include "service/server/Lines.h"
#include "shared/AbstractSocket.h"
#include "shared/Text.h"
#include "wire/Funcid.h"

namespace service {
namespace {

// What epoll names its descriptors by; clients' ids follow.
constexpr uint64_t kWakeId = 0, kListenerId = 1, kUdpId = 2, kFirstClientId = 3;

constexpr int64_t kAcceptPauseMs = 200;

/// Milliseconds of a clock that never steps: boosts must not end early because somebody set the time.
int64_t steadyMs() {
  using std::chrono::steady_clock;
  return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Server::Server(ServerOptions options, Dispatcher& dispatcher, const Log& log)
    : m_options(std::move(options)),
      m_dispatcher(dispatcher),
      m_log(log),
      m_epoll(keepAboveStdio(epoll_create1(EPOLL_CLOEXEC))),
      m_wake(keepAboveStdio(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      m_lastId(kFirstClientId - 1) {}

bool Server::start(std::string& problem) {
  if (!m_epoll || !m_wake) {
    problem = "no descriptors left: raise the limit (ulimit -n)";
    return false;
  }
  bool watched = watch(m_wake.get(), kWakeId, EPOLLIN);
  if (!m_options.name.empty()) {
    m_listener = shared::listenOn(m_options.name, problem);
    if (!m_listener) return false;
    watched = watched && watch(m_listener.get(), kListenerId, EPOLLIN);
  }
  if (m_options.udp) {
    m_udp = std::make_unique<UdpPort>(m_log, m_options.udpTiming);
    if (!m_udp->start(*m_options.udp, problem)) return false;
    watched = watched && watch(m_udp->fd(), kUdpId, EPOLLIN);
  }
  if (!watched) {
    problem = "epoll: " + shared::errorText(errno);
    return false;
  }
  const int64_t now = steadyMs();
  for (RepeatedPush& repeated : m_options.repeat) repeated.nextAt = now + repeated.everyMs;
  if (m_listener) m_log.always("listening on @" + m_options.name);
  if (m_udp != nullptr) m_log.always("listening on udp " + m_udp->address());
  return true;
}

void Server::run() {
  while (!m_stopped) round(-1);
  while (!m_clients.empty()) close(m_clients.begin()->first, "the service ends");
  m_udp.reset();
  m_dispatcher.boosts().endAll("the service ends");
}

bool Server::round(int atMostMs) {
  epoll_event events[64];
  const int dueMs = waitMs(steadyMs());
  const int limitMs = atMostMs < 0 || (dueMs >= 0 && dueMs < atMostMs) ? dueMs : atMostMs;
  const int count = epoll_wait(m_epoll.get(), events, std::size(events), limitMs);
  const int64_t now = steadyMs();
  m_dispatcher.boosts().endExpired(now);
  for (int i = 0; i < count; ++i) {
    const uint64_t id = events[i].data.u64;
    if (id == kListenerId) accept(now);
    if (id == kUdpId) m_udp->receive(now, [&](Client& client, const Request& r) { answer(client, r, now); });
    if (id >= kFirstClientId) serve(id, events[i].events, now);
  }
  pushRepeated(now);
  if (m_udp != nullptr) m_udp->expire(now);
  if (m_acceptAgainAt != 0 && now >= m_acceptAgainAt) {
    m_acceptAgainAt = 0;
    watch(m_listener.get(), kListenerId, EPOLLIN);
  }
  return count > 0;
}

void Server::stop() {
  m_stopped = true;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(m_wake.get(), &one, sizeof(one));
}

/// Puts the descriptor into the epoll set, or changes its events there.
bool Server::watch(int fd, uint64_t id, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  return epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0 ||
         (errno == EEXIST && epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, fd, &event) == 0);
}

/// How long nothing is due, in milliseconds; -1 for as long as nothing happens.
int Server::waitMs(int64_t now) const {
  int64_t due = m_dispatcher.boosts().nextExpiry();
  for (const RepeatedPush& repeated : m_options.repeat) due = std::min(due, repeated.nextAt);
  if (m_udp != nullptr) due = std::min(due, m_udp->nextExpiry());
  if (m_acceptAgainAt != 0) due = std::min(due, m_acceptAgainAt);
  if (due == kNoExpiry) return -1;
  return static_cast<int>(std::clamp<int64_t>(due - now, 0, INT32_MAX));
}

void Server::accept(int64_t now) {
  shared::UniqueFd socket(
      keepAboveStdio(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
  if (!socket) {
    if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return;
    // The waiting client would wake the loop again at once and for ever: look away for a while.
    m_log.always("cannot accept a client now: " + shared::errorText(errno));
    m_acceptAgainAt = now + kAcceptPauseMs;
    watch(m_listener.get(), kListenerId, 0);
    return;
  }
  Requester requester;
  requester.id = ++m_lastId;
  requester.process = Process::ofSocket(socket.get());
  requester.name = requester.isKnown() ? "pid=" + std::to_string(requester.process->pid()) +
                                             " uid=" + std::to_string(requester.process->uid())
                                       : "pid=? uid=?";
  if (m_clients.size() >= kMaxClients) {
    m_log.always("turned away " + requester.name + ": " + std::to_string(kMaxClients) +
                 " clients are served");
    return;
  }
  if (!watch(socket.get(), requester.id, EPOLLIN)) return;
  m_log.detail("connected " + requester.name);
  const uint64_t id = requester.id;
  m_clients[id] = std::make_unique<SocketClient>(std::move(socket), std::move(requester));
}

void Server::serve(uint64_t id, uint32_t events, int64_t now) {
  const auto found = m_clients.find(id);
  if (found == m_clients.end()) return;  // closed earlier in this round
  SocketClient& client = *found->second;
  if ((events & EPOLLOUT) != 0) flush(client);
  if (m_clients.count(id) == 0 || (events & ~static_cast<uint32_t>(EPOLLOUT)) == 0) return;
  const bool goesOn = client.receive();
  if (!serveRequests(client, now)) return;
  if (!goesOn) close(id, client.reader().atBoundary() ? "disconnected" : "disconnected inside a request");
}

/// Handles every whole request that has arrived. False when the client was closed over it.
bool Server::serveRequests(SocketClient& client, int64_t now) {
  const uint64_t id = client.requester().id;
  RequestPacket packet;
  std::string problem;
  RequestReader::Result result = RequestReader::Result::MORE_NEEDED;
  while ((result = client.reader().next(packet, problem)) == RequestReader::Result::PACKET) {
    Request request;
    if (!decodeRequest(packet, request, problem)) {
      result = RequestReader::Result::BAD;
      break;
    }
    answer(client, request, now);
  }
  flush(client);
  if (m_clients.count(id) == 0) return false;
  if (result != RequestReader::Result::BAD) return true;
  m_log.always("closed " + client.requester().name + ": bad input: " + problem);
  close(id, "");
  return false;
}

void Server::answer(Client& client, const Request& request, int64_t now) {
  const Outcome outcome = m_dispatcher.handle(request, client.requester(), now);
  m_log.event(requestLine(request, client.requester(), outcome));
  client.answer(request, outcome.status);
  if (request.funcid != FUNCID_REGISTER_ANR_CALLBACK || outcome.status != Status::DONE) return;
  client.setRegistered();
  for (const Push& pushed : m_options.onRegister) push(client, pushed);
}

void Server::push(Client& client, const Push& pushed) {
  client.push(pushed);
  m_log.event(pushLine(client.requester(), pushed));
}

void Server::pushRepeated(int64_t now) {
  for (RepeatedPush& repeated : m_options.repeat) {
    if (now < repeated.nextAt) continue;
    repeated.nextAt = now + repeated.everyMs;
    for (auto next = m_clients.begin(); next != m_clients.end();) {
      SocketClient& client = *(next++)->second;  // flush() may close it
      if (!client.isRegistered()) continue;
      push(client, repeated.push);
      flush(client);
    }
    if (m_udp != nullptr) m_udp->pushToRegistered([&](Client& client) { push(client, repeated.push); });
  }
}

void Server::flush(SocketClient& client) {
  if (!client.flush()) {
    m_log.always("closed " + client.requester().name + ": it does not read its replies");
    close(client.requester().id, "");
    return;
  }
  if (client.hasOutput() == client.isWatchedForOutput()) return;
  client.setWatchedForOutput(client.hasOutput());
  watch(client.fd(), client.requester().id, client.hasOutput() ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

/// why  for the line, unless it was said already
void Server::close(uint64_t id, const std::string& why) {
  const auto found = m_clients.find(id);
  if (!why.empty()) m_log.detail("closed " + found->second->requester().name + ": " + why);
  m_dispatcher.requesterGone(found->second->requester());
  m_clients.erase(found);
}

}  // namespace service
