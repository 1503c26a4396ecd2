// The local socket: who is let in, and the clients that are. Belongs to the server's thread.
//
// Nobody holds anybody up or out: sockets do not block, a client's requests are taken a few at a time, the
// places and the memory are shared out by user, and who breaks the rules is closed alone.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "service/clients/ClientHandler.h"
#include "service/clients/Poller.h"
#include "service/clients/SocketClient.h"
#include "service/core/Log.h"
#include "service/faults/Faults.h"

namespace service {

struct ClientLimits {
  size_t inAll = 256;  // clients at a time
  size_t perUser = 64;
  size_t requestBytes = size_t{64} * 1024 * 1024;  // of requests that are not whole yet, in all
};

/// Who is let in. Without any entry: everybody.
struct Access {
  std::set<uid_t> uids;
  std::set<gid_t> gids;

  bool isOpen() const { return uids.empty() && gids.empty(); }
  /// By user, group or supplementary group. process: null when it is not known
  bool allows(const Process* process) const;
};

/// Requests of one client that are handled before others get their turn, and about how long they may take (in
/// milliseconds): an I/O boost of a process with thousands of threads takes tens.
constexpr int kRequestsPerRound = 16;
constexpr int64_t kTurnMs = 10;
/// A client that has asked for nothing for so long (milliseconds), holds no boost and is not registered for
/// pushes gives its place to a new one when all are taken.
constexpr int64_t kIdleMs = 60'000;
/// How long a client that has ended its side may take for the replies that are left.
constexpr int64_t kLingerMs = 2000;

class SocketPort {
 public:
  /// All references must outlive the port. firstId: of the ids that clients get, here and in the poller
  SocketPort(ClientHandler& handler, Poller& poller, const Log& log, const ClientLimits& limits,
             const Access& access, Faults& faults, uint64_t listenerId, uint64_t firstId);

  /// Takes over a listening, non-blocking socket. False, with errno set, when it cannot be watched.
  bool listen(shared::UniqueFd listener);

  /// What the poller has found at the listener, or at a client.
  void accept(int64_t now);
  void serve(uint64_t id, uint32_t events, int64_t now);

  /// What is due: requests left over from the last round, clients that ended, accepting again.
  void goOn(int64_t now);
  /// When goOn() has something to do; `now` or before: at once; INT64_MAX: never.
  int64_t nextDue() const;

  /// Null when it has gone.
  SocketClient* find(uint64_t id);
  /// Sends what waits. The client may be closed over it.
  void flush(SocketClient& client, int64_t now);
  /// Goes on with a client that was busy.
  void resume(SocketClient& client, int64_t now);
  /// Calls with every registered client, and sends.
  void pushToRegistered(const std::function<void(Client&)>& push, int64_t now);
  void forEach(const std::function<void(const SocketClient&)>& visit) const;

  void close(uint64_t id, const std::string& why, Priority priority = Priority::DEBUG);
  void closeAll(const std::string& why);

  /// Counts up with every client that comes or goes.
  uint64_t changes() const { return m_changes; }

 private:
  using Clients = std::map<uint64_t, std::unique_ptr<SocketClient>>;

  bool makeRoom(const Requester& requester, int64_t now);
  void serveRequests(SocketClient& client, int64_t now);
  void boundMemory();
  bool settle(SocketClient& client, int64_t now);
  void admit(shared::UniqueFd socket, int64_t now);

  ClientHandler& m_handler;
  Poller& m_poller;
  const Log& m_log;
  Faults& m_faults;
  const ClientLimits m_limits;
  const Access m_access;
  const uint64_t m_listenerId;
  shared::UniqueFd m_listener;
  int64_t m_acceptAgainAt = INT64_MAX;  // when descriptors had run out: not before
  std::vector<shared::UniqueFd>
      m_waiting;      // connections that a fault, or a lack of descriptors, leaves waiting
  uint64_t m_lastId;  // the last client id given out
  Clients m_clients;  // by id
  std::map<uint32_t, size_t> m_perUser;
  std::set<uint64_t> m_ready;      // clients with whole requests left over
  std::set<uint64_t> m_lingering;  // clients that ended, with replies left
  size_t m_requestBytes = 0;       // memory of all readers
  uint64_t m_changes = 0;
};

}  // namespace service
