// The server: one thread that waits for clients, requests, and the time of boosts and pushes to come.
//
// It never waits for a single client (see the ports), nor for a disk or a log. Everything but stop() and
// report() belongs to the thread that calls run().
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "service/clients/ClientHandler.h"
#include "service/clients/Poller.h"
#include "service/clients/SocketPort.h"
#include "service/clients/UdpPort.h"
#include "service/faults/Faults.h"
#include "service/server/Dispatcher.h"
#include "service/server/FaultyAnswers.h"
#include "service/server/StateFile.h"

namespace service {

/// A push that registered clients get again and again.
struct RepeatedPush {
  Push push;
  int64_t everyMs = 1000;
  int64_t nextAt = 0;  // filled in by the server
};

struct ServerOptions {
  std::string name;                // in the abstract namespace, 1 to 107 bytes; empty: no such socket
  std::optional<sockaddr_in> udp;  // IPv4 address and port; none: no UDP
  UdpTiming udpTiming;             // for tests
  ClientLimits clientLimits;
  UdpLimits udpLimits;
  Access access;
  std::string stateFile;             // a path; empty: none is kept
  std::vector<Fault> faults;         // scripted misbehaviour
  std::vector<Push> onRegister;      // sent to a client behind the reply to its registration
  std::vector<RepeatedPush> repeat;  // sent to every registered client
};

class Server : private ClientHandler {
 public:
  /// The dispatcher and the log must outlive the server.
  Server(ServerOptions options, Dispatcher& dispatcher, const Log& log);

  /// Opens everything and says "listening on @NAME" and "listening on udp ADDRESS:PORT". False, with the
  /// problem named, when that fails.
  /// listener  listens on the options' name already, given by who started the service; or none
  bool start(std::string& problem, shared::UniqueFd listener = shared::UniqueFd());

  /// Serves until stop(); then undoes all boosts and closes all clients. After start().
  void run();

  /// One round of run(): waits until something is to be done, at most so many milliseconds (below 0: as long
  /// as it takes), and does it. False when nothing had happened. For who turns the loop himself.
  bool round(int atMostMs);

  /// The UDP address, with the port that the system chose. After start() with UDP; any thread.
  std::string udpAddress() const { return m_udp->address(); }

  /// Ends run(). Any thread, and signal handlers.
  void stop();
  /// Makes run() say who holds what. Any thread, and signal handlers.
  void report();

 private:
  /// A request whose outcome comes later.
  struct Later {
    uint64_t client;
    Request request;
  };

  bool handle(Client& client, Request&& request, int64_t now) override;
  void gone(const Client& client) override;
  bool holdsBoosts(const Client& client) const override;

  int waitMs(int64_t now) const;
  void wake();
  void takeLater(int64_t now);
  void put(uint64_t id, const std::string& bytes, int64_t now);
  void answer(Client& client, const Request& request, const Outcome& outcome);
  void push(Client& client, const Push& push);
  void pushRepeated(int64_t now);
  uint64_t changes() const;
  void keepState(int64_t now);

  ServerOptions m_options;
  Dispatcher& m_dispatcher;
  const Log& m_log;
  Faults m_faults;
  FaultyAnswers m_faultyAnswers{m_faults};
  Poller m_poller;
  const shared::UniqueFd
      m_wake;  // an eventfd; made in the constructor, so that stop() may come before start()
  SocketPort m_sockets;
  std::unique_ptr<UdpPort> m_udp;  // null without UDP
  std::atomic<bool> m_stopped{false};
  std::atomic<bool> m_reportWanted{false};
  uint64_t m_registrations = 0;
  uint64_t m_lastTicket = 0;
  std::map<uint64_t, Later> m_later;  // by ticket
  StateFile m_stateFile;
};

}  // namespace service
