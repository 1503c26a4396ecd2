#include "service/server/Server.h"

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/descriptor.h"
#include "service/core/SteadyClock.h"
#include "service/faults/UdpFaults.h"
#include "service/server/Lines.h"
#include "shared/AbstractSocket.h"
#include "shared/Text.h"
#include "wire/Funcid.h"

namespace service {
namespace {

// What the poller names its descriptors by; clients' ids follow.
constexpr uint64_t kWakeId = 0, kListenerId = 1, kUdpId = 2, kPreloadsId = 3, kFirstClientId = 4;
constexpr char kEnds[] = "the service ends";

}  // namespace

Server::Server(ServerOptions options, Dispatcher& dispatcher, const Log& log)
    : m_options(std::move(options)),
      m_dispatcher(dispatcher),
      m_log(log),
      m_faults(m_options.faults, steadyMs()),
      m_wake(keepAboveStdio(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      m_sockets(*this, m_poller, log, m_options.clientLimits, m_options.access, m_faults, kListenerId,
                kFirstClientId),
      m_stateFile(m_options.stateFile) {}

bool Server::start(std::string& problem, shared::UniqueFd listener) {
  if (!m_poller.isOpen() || !m_wake || !m_dispatcher.preloads().isOpen()) {
    problem = "no descriptors left: raise the limit (ulimit -n)";
    return false;
  }
  bool watched = m_poller.watch(m_wake.get(), kWakeId, EPOLLIN) &&
                 m_poller.watch(m_dispatcher.preloads().fd(), kPreloadsId, EPOLLIN);
  const bool hasSocket = listener || !m_options.name.empty();
  if (hasSocket) {
    if (!listener) listener = shared::listenOn(m_options.name, problem);
    if (!listener) return false;
    watched = watched && m_sockets.listen(std::move(listener));
  }
  if (m_options.udp) {
    if (!m_options.faults.empty()) {
      setUdpFaults(m_options.faults);
      m_options.udpTiming.copies = udpCopies;
    }
    m_udp = std::make_unique<UdpPort>(static_cast<ClientHandler&>(*this), m_log, m_options.udpLimits,
                                      m_options.udpTiming);
    if (!m_udp->start(*m_options.udp, problem)) return false;
    watched = watched && m_poller.watch(m_udp->fd(), kUdpId, EPOLLIN);
  }
  if (!watched) {
    problem = "epoll: " + shared::errorText(errno);
    return false;
  }
  const int64_t now = steadyMs();
  for (RepeatedPush& repeated : m_options.repeat) repeated.nextAt = now + repeated.everyMs;
  if (m_stateFile.isWanted() &&
      !m_stateFile.write(stateOf(m_dispatcher.boosts(), m_sockets, m_udp.get(), now), 0, problem)) {
    return false;
  }
  if (hasSocket) m_log.notice("listening on @" + m_options.name);
  if (m_udp != nullptr) m_log.notice("listening on udp " + m_udp->address());
  return true;
}

void Server::run() {
  while (!m_stopped) round(-1);
  m_sockets.closeAll(kEnds);
  m_udp.reset();
  m_dispatcher.boosts().endAll(kEnds);
  if (m_stateFile.isWanted()) unlink(m_options.stateFile.c_str());
}

bool Server::round(int atMostMs) {
  epoll_event events[64];
  const int dueMs = waitMs(steadyMs());
  const int limitMs = atMostMs < 0 || (dueMs >= 0 && dueMs < atMostMs) ? dueMs : atMostMs;
  const int count = m_poller.wait(events, std::size(events), limitMs);
  const int64_t now = steadyMs();
  m_dispatcher.boosts().endExpired(now);
  for (int i = 0; i < count && !m_stopped; ++i) {
    const uint64_t id = events[i].data.u64;
    if (id == kListenerId) m_sockets.accept(now);
    if (id == kUdpId) m_udp->receive(now);
    if (id == kWakeId) {
      uint64_t wakes = 0;
      [[maybe_unused]] const ssize_t got = read(m_wake.get(), &wakes, sizeof(wakes));
    }
    if (id >= kFirstClientId) m_sockets.serve(id, events[i].events, now);
  }
  takeLater(now);
  m_faultyAnswers.goOn(now, [&](uint64_t id, const std::string& bytes) { put(id, bytes, now); });
  m_sockets.goOn(now);
  if (m_udp != nullptr) m_udp->goOn(now);
  pushRepeated(now);
  if (m_reportWanted.exchange(false)) {
    for (const std::string& line : stateLines(stateOf(m_dispatcher.boosts(), m_sockets, m_udp.get(), now))) {
      m_log.notice(line);
    }
  }
  keepState(now);
  return count > 0;
}

void Server::stop() {
  m_stopped = true;
  wake();
}

void Server::report() {
  m_reportWanted = true;
  wake();
}

void Server::wake() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(m_wake.get(), &one, sizeof(one));
}

/// How long nothing is due, in milliseconds; -1 for as long as nothing happens.
int Server::waitMs(int64_t now) const {
  int64_t due = std::min({m_dispatcher.boosts().nextExpiry(), m_sockets.nextDue(),
                          m_dispatcher.preloads().nextExpiry(), m_faultyAnswers.nextDue()});
  for (const RepeatedPush& repeated : m_options.repeat) due = std::min(due, repeated.nextAt);
  if (m_udp != nullptr) due = std::min(due, m_udp->nextDue());
  if (m_stateFile.isWanted()) due = std::min(due, m_stateFile.dueAt(changes()));
  if (due == INT64_MAX) return -1;
  return static_cast<int>(std::clamp<int64_t>(due - now, 0, INT32_MAX));
}

bool Server::handle(Client& client, Request&& request, int64_t now) {
  m_dispatcher.boosts().endExpired(now);
  const uint64_t ticket = m_lastTicket + 1;
  const auto outcome = m_dispatcher.handle(request, client.requester(), ticket, now);
  if (outcome) {
    answer(client, request, *outcome);
  } else {
    m_lastTicket = ticket;
    client.setBusy(true);
    keepDescription(request);
    m_later.emplace(ticket, Later{client.requester().id, std::move(request)});
  }
  return !m_stopped;
}

void Server::takeLater(int64_t now) {
  for (const Preloads::Result& result : m_dispatcher.preloads().take(now)) {
    const auto later = m_later.find(result.ticket);
    if (later == m_later.end()) continue;
    const Later entry = std::move(later->second);
    m_later.erase(later);
    SocketClient* const socketClient = m_sockets.find(entry.client);
    DatagramClient* const datagramClient = m_udp != nullptr ? m_udp->find(entry.client) : nullptr;
    Client* const client = socketClient != nullptr ? static_cast<Client*>(socketClient) : datagramClient;
    if (client == nullptr) continue;  // has gone meanwhile
    client->setBusy(false);
    answer(*client, entry.request, result.outcome);
    if (socketClient != nullptr) m_sockets.resume(*socketClient, now);
    if (datagramClient != nullptr) m_udp->resume(*datagramClient, now);
  }
}

/// Sends bytes to a client that may have gone.
void Server::put(uint64_t id, const std::string& bytes, int64_t now) {
  if (SocketClient* const client = m_sockets.find(id); client != nullptr) {
    client->put(bytes);
    m_sockets.flush(*client, now);
  } else if (DatagramClient* const peer = m_udp != nullptr ? m_udp->find(id) : nullptr; peer != nullptr) {
    peer->put(bytes);
    m_udp->sendOn(*peer, now);
  }
}

void Server::answer(Client& client, const Request& request, const Outcome& outcome) {
  m_log.info([&] { return requestLine(request, client.requester(), outcome); });
  if (m_faults.isEmpty()) {
    client.answer(request, outcome.status);
  } else {
    m_faultyAnswers.answer(client, request, outcome.status, steadyMs());
  }
  if (request.funcid != FUNCID_REGISTER_ANR_CALLBACK || outcome.status != Status::DONE) return;
  if (m_dispatcher.isScripted(request.funcid)) return;  // "nothing was done" is to be true
  client.setRegistered();
  ++m_registrations;
  for (const Push& pushed : m_options.onRegister) push(client, pushed);
}

void Server::push(Client& client, const Push& pushed) {
  if (m_faults.strikes(FaultKind::NO_PUSH, client.requester().id, FUNCID_REGISTER_ANR_CALLBACK, steadyMs())) {
    return;
  }
  client.push(pushed);
  m_log.info([&] { return pushLine(client.requester(), pushed); });
}

void Server::pushRepeated(int64_t now) {
  for (RepeatedPush& repeated : m_options.repeat) {
    if (now < repeated.nextAt) continue;
    repeated.nextAt = now + repeated.everyMs;
    const auto pushThis = [&](Client& client) { push(client, repeated.push); };
    m_sockets.pushToRegistered(pushThis, now);
    if (m_udp != nullptr) m_udp->pushToRegistered(pushThis, now);
  }
}

void Server::gone(const Client& client) {
  const int64_t now = steadyMs();
  const uint64_t id = client.requester().id;
  m_faultyAnswers.forget(id);
  if (!m_faults.strikes(FaultKind::KEEP_BOOSTS, id, -1, now))
    m_dispatcher.requesterGone(client.requester(), m_stopped ? kEnds : client.requester().name + " has gone",
                               now);
}

bool Server::holdsBoosts(const Client& client) const {
  return m_dispatcher.boosts().holds(client.requester().id);
}

/// Counts up with everything that the state file tells.
uint64_t Server::changes() const {
  return m_dispatcher.boosts().changes() + m_sockets.changes() + m_registrations +
         (m_udp != nullptr ? m_udp->changes() : 0);
}

void Server::keepState(int64_t now) {
  const uint64_t count = changes();
  if (m_stateFile.dueAt(count) > now) return;
  std::string problem;
  if (!m_stateFile.write(stateOf(m_dispatcher.boosts(), m_sockets, m_udp.get(), now), count, problem)) {
    m_log.warning(problem);
  }
}

}  // namespace service
