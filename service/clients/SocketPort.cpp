#include "service/clients/SocketPort.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "base/descriptor.h"
#include "service/core/Outcome.h"
#include "service/core/SteadyClock.h"
#include "shared/Text.h"

namespace service {
namespace {

constexpr int64_t kAcceptPauseMs = 200;
constexpr int kAcceptsPerRound = 16;

}  // namespace

bool Access::allows(const Process* process) const {
  if (isOpen()) return true;
  if (process == nullptr) return false;
  return uids.count(process->uid()) != 0 || gids.count(process->gid()) != 0 ||
         std::any_of(process->groups().begin(), process->groups().end(),
                     [this](gid_t group) { return gids.count(group) != 0; });
}

SocketPort::SocketPort(ClientHandler& handler, Poller& poller, const Log& log, const ClientLimits& limits,
                       const Access& access, Faults& faults, uint64_t listenerId, uint64_t firstId)
    : m_handler(handler),
      m_poller(poller),
      m_log(log),
      m_faults(faults),
      m_limits(limits),
      m_access(access),
      m_listenerId(listenerId),
      m_lastId(firstId - 1) {}

bool SocketPort::listen(shared::UniqueFd listener) {
  m_listener = std::move(listener);
  return m_poller.watch(m_listener.get(), m_listenerId, EPOLLIN);
}

void SocketPort::accept(int64_t now) {
  for (int i = 0; i < kAcceptsPerRound; ++i) {
    shared::UniqueFd socket(
        keepAboveStdio(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
    if (socket) {
      if (m_faults.strikes(FaultKind::REFUSE, 0, -1, now)) continue;
      if (m_faults.strikes(FaultKind::NO_ACCEPT, 0, -1, now) && m_waiting.size() < m_limits.inAll) {
        m_waiting.push_back(std::move(socket));
        m_acceptAgainAt = now + kAcceptPauseMs;
        continue;
      }
      admit(std::move(socket), now);
      continue;
    }
    if (errno == EAGAIN || !isPassing(errno)) return;
    // The waiting client would wake the loop again at once and for ever: look away for a while.
    m_log.warning("cannot accept a client now: " + shared::errorText(errno));
    m_acceptAgainAt = now + kAcceptPauseMs;
    m_poller.watch(m_listener.get(), m_listenerId, 0);
    return;
  }
}

void SocketPort::admit(shared::UniqueFd socket, int64_t now) {
  Requester requester;
  requester.id = ++m_lastId;
  int want = 0;
  requester.process = Process::ofSocket(socket.get(), want);
  if (want != 0 &&
      m_waiting.size() < m_limits.inAll) {  // taken unseen it would be refused most things for good
    m_log.warning("cannot look at a client now: " + shared::errorText(want));
    m_waiting.push_back(std::move(socket));
    m_acceptAgainAt = now + kAcceptPauseMs;
    return;
  }
  requester.name = "pid=? uid=?";
  if (requester.isKnown()) {
    requester.user = requester.process->uid();
    requester.name = fmt::format("pid={} uid={}", requester.process->pid(), requester.user);
  }
  if (!m_access.allows(requester.process.get())) {
    m_log.warning(fmt::format("turned away {}: neither its user nor its groups are allowed", requester.name));
    return;
  }
  if (!makeRoom(requester, now)) return;
  auto client = std::make_unique<SocketClient>(std::move(socket), requester);
  client->heardAt = now;
  if (!settle(*client, now)) return;
  m_log.debug("connected " + requester.name);
  m_clients[requester.id] = std::move(client);
  ++m_perUser[requester.user];
  ++m_changes;
}

/// Whether there is a place for one more client, if need be that of an idle one.
bool SocketPort::makeRoom(const Requester& requester, int64_t now) {
  const auto own = m_perUser.find(requester.user);
  const bool userIsFull = own != m_perUser.end() && own->second >= m_limits.perUser;
  if (!userIsFull && m_clients.size() < m_limits.inAll) return true;
  const SocketClient* idle = nullptr;
  for (const auto& [id, client] : m_clients) {
    if (userIsFull && client->requester().user != requester.user) continue;
    if (client->isRegistered() || client->isBusy() || now - client->heardAt < kIdleMs) continue;
    if (idle != nullptr && idle->heardAt <= client->heardAt) continue;
    if (!m_handler.holdsBoosts(*client)) idle = client.get();
  }
  if (idle != nullptr) {
    close(idle->requester().id, "idle, and others need its place", Priority::INFO);
    return true;
  }
  m_log.warning(
      userIsFull
          ? fmt::format("turned away {}: {} clients of its user are served", requester.name, m_limits.perUser)
          : fmt::format("turned away {}: {} clients are served", requester.name, m_limits.inAll));
  return false;
}

void SocketPort::serve(uint64_t id, uint32_t events, int64_t now) {
  SocketClient* const client = find(id);
  if (client == nullptr) return;  // closed earlier in this round
  if ((events & EPOLLOUT) != 0) {
    flush(*client, now);
    if (find(id) == nullptr || events == uint32_t{EPOLLOUT}) return;
  }
  if (client->hasEnded() || client->isBusy() || !client->isRead() || client->reader().hasNext()) {
    settle(*client, now);
    return;
  }
  const size_t before = client->reader().memory();
  client->receive();
  m_requestBytes += client->reader().memory() - before;
  serveRequests(*client, now);
  if (m_requestBytes > m_limits.requestBytes) boundMemory();
}

/// Handles the whole requests that have arrived, a few of them.
void SocketPort::serveRequests(SocketClient& client, int64_t now) {
  const size_t before = client.reader().memory();
  int64_t time = steadyMs();  // `now` may be the turns of many others ago
  const int64_t until = time + kTurnMs;
  RequestPacket packet;
  Request request;
  std::string problem;
  for (int i = 0; i < kRequestsPerRound && time < until && !client.isBusy() && client.isRead(); ++i) {
    const RequestReader::Result result = client.reader().next(packet, problem);
    if (result == RequestReader::Result::MORE_NEEDED) break;
    client.heardAt = now;
    if (result == RequestReader::Result::BAD || !decodeRequest(packet, request, problem)) {
      client.endFor("bad input: " + problem);
      break;
    }
    if (!m_handler.handle(client, std::move(request), time)) break;
    if (client.isToBeClosed()) {
      m_requestBytes -= before - client.reader().memory();
      client.flush();
      close(client.requester().id, "a fault of the script", Priority::INFO);
      return;
    }
    if (m_faults.strikes(FaultKind::LOSE_COALESCED, client.requester().id, packet.funcid, now)) {
      client.reader().drop();
    }
    time = steadyMs();
  }
  if (!client.reader().atBoundary() && !client.reader().hasNext() &&
      m_faults.strikes(FaultKind::LOSE_SPLIT, client.requester().id, -1, now)) {
    client.reader().drop();
  }
  m_requestBytes -= before - client.reader().memory();
  flush(client, now);
}

/// Closes the client that takes most, of the user that takes most, until the rest fits.
void SocketPort::boundMemory() {
  while (m_requestBytes > m_limits.requestBytes) {
    std::map<uint32_t, size_t> ofUser;
    for (const auto& [id, client] : m_clients) ofUser[client->requester().user] += client->reader().memory();
    const auto weight = [&](const Clients::value_type& entry) {
      return std::make_pair(ofUser[entry.second->requester().user], entry.second->reader().memory());
    };
    const auto most = std::max_element(m_clients.begin(), m_clients.end(),
                                       [&](const auto& a, const auto& b) { return weight(a) < weight(b); });
    if (most == m_clients.end()) return;
    close(most->first, "its unfinished request takes memory that others need", Priority::WARNING);
  }
}

/// Makes the poller wait for what the client can bring next, and closes a client that has ended when nothing
/// is left to do for it. False when it is closed, or cannot be watched.
bool SocketPort::settle(SocketClient& client, int64_t now) {
  const uint64_t id = client.requester().id;
  const bool hasRequests = client.reader().hasNext() && client.isRead();
  if (hasRequests && !client.isBusy()) m_ready.insert(id);
  const bool isDone = client.hasEnded() && !hasRequests && !client.isBusy();
  if (isDone && client.closeAt == 0) {
    client.closeAt = now + kLingerMs;
    m_lingering.insert(id);
  }
  if (isDone && (!client.hasOutput() || client.closeAt <= now)) {
    if (client.endedFor().empty()) {
      close(id, client.reader().atBoundary() ? "disconnected" : "disconnected inside a request");
    } else {
      close(id, client.endedFor(), Priority::WARNING);
    }
    return false;
  }
  const bool wantsInput = !client.hasEnded() && !hasRequests && !client.isBusy() && client.isRead();
  const uint32_t events =
      (wantsInput ? uint32_t{EPOLLIN} : 0) | (client.hasOutput() ? uint32_t{EPOLLOUT} : 0);
  if (events == client.watchedEvents) return true;
  client.watchedEvents = events;
  return m_poller.watch(client.fd(), id, events);
}

void SocketPort::flush(SocketClient& client, int64_t now) {
  if (!client.flush()) {
    const std::string& why = client.endedFor();
    close(client.requester().id, why.empty() ? "it does not read its replies" : why, Priority::WARNING);
    return;
  }
  settle(client, now);
}

void SocketPort::resume(SocketClient& client, int64_t now) {
  serveRequests(client, now);
}

void SocketPort::goOn(int64_t now) {
  for (const uint64_t id : std::exchange(m_ready, {})) {
    if (SocketClient* const client = find(id); client != nullptr) serveRequests(*client, now);
  }
  const std::set<uint64_t> lingering = m_lingering;
  for (const uint64_t id : lingering) {
    if (SocketClient* const client = find(id); client != nullptr) settle(*client, now);
  }
  if (now >= m_acceptAgainAt) {
    const bool stillWait = !m_waiting.empty() && m_faults.isDue(FaultKind::NO_ACCEPT, now);
    m_acceptAgainAt = stillWait ? now + kAcceptPauseMs : INT64_MAX;
    for (shared::UniqueFd& socket : std::exchange(m_waiting, {})) {
      if (stillWait || !m_waiting.empty()) {
        m_waiting.push_back(std::move(socket));
      } else {
        admit(std::move(socket), now);
      }
    }
    m_poller.watch(m_listener.get(), m_listenerId, EPOLLIN);
  }
}

int64_t SocketPort::nextDue() const {
  if (!m_ready.empty()) return 0;
  int64_t due = m_acceptAgainAt;
  for (const uint64_t id : m_lingering) due = std::min(due, m_clients.at(id)->closeAt);
  return due;
}

SocketClient* SocketPort::find(uint64_t id) {
  const auto found = m_clients.find(id);
  return found != m_clients.end() ? found->second.get() : nullptr;
}

void SocketPort::pushToRegistered(const std::function<void(Client&)>& push, int64_t now) {
  for (auto next = m_clients.begin(); next != m_clients.end();) {
    SocketClient& client = *(next++)->second;  // flush() may close it
    if (!client.isRegistered()) continue;
    push(client);
    flush(client, now);
  }
}

void SocketPort::forEach(const std::function<void(const SocketClient&)>& visit) const {
  for (const auto& [id, client] : m_clients) visit(*client);
}

void SocketPort::close(uint64_t id, const std::string& why, Priority priority) {
  const auto found = m_clients.find(id);
  if (found == m_clients.end()) return;
  const SocketClient& client = *found->second;
  const std::string line = fmt::format("closed {}: {}", client.requester().name, why);
  priority == Priority::WARNING ? m_log.warning(line)
  : priority == Priority::INFO  ? m_log.info(line)
                                : m_log.debug(line);
  m_handler.gone(client);
  m_faults.forget(id);
  m_requestBytes -= client.reader().memory();
  if (--m_perUser[client.requester().user] == 0) m_perUser.erase(client.requester().user);
  m_ready.erase(id);
  m_lingering.erase(id);
  m_clients.erase(found);
  ++m_changes;
}

void SocketPort::closeAll(const std::string& why) {
  while (!m_clients.empty()) close(m_clients.begin()->first, why);
}

}  // namespace service
