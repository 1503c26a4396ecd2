// The server: one thread that waits for clients, requests, and the time of boosts and pushes to come.
//
// It never waits for a single client: sockets do not block, output is kept per client up to a bound, and bad
// input closes the client it came from. Everything but stop() belongs to the thread that calls run().
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "service/clients/SocketClient.h"
#include "service/clients/UdpPort.h"
#include "service/core/Log.h"
#include "service/server/Dispatcher.h"

namespace service {

/// A push that registered clients get again and again.
struct RepeatedPush {
  Push push;
  int64_t everyMs = 1000;
  int64_t nextAt = 0;  // filled in by the server
};

struct ServerOptions {
  std::string name;                  // in the abstract namespace, 1 to 107 bytes; empty: no such socket
  std::optional<sockaddr_in> udp;    // IPv4 address and port; none: no UDP
  UdpTiming udpTiming;               // for tests
  std::vector<Push> onRegister;      // sent to a client behind the reply to its registration
  std::vector<RepeatedPush> repeat;  // sent to every registered client
};

/// Clients at a time; more are turned away with a line.
constexpr size_t kMaxClients = 256;

class Server {
 public:
  /// The dispatcher and the log must outlive the server.
  Server(ServerOptions options, Dispatcher& dispatcher, const Log& log);

  /// Opens everything and says "listening on @NAME" and "listening on udp ADDRESS:PORT". False, with the
  /// problem named, when that fails.
  bool start(std::string& problem);

  /// Serves until stop(); then undoes all boosts and closes all clients. After start().
  void run();

  /// One round of run(): waits until something is to be done, at most so many milliseconds (below 0: as long
  /// as it takes), and does it. False when nothing had happened. For who turns the loop himself.
  bool round(int atMostMs);

  /// The UDP address, with the port that the system chose. After start() with UDP; any thread.
  std::string udpAddress() const { return m_udp->address(); }

  /// Ends run(). Any thread, and signal handlers.
  void stop();

 private:
  using Clients = std::map<uint64_t, std::unique_ptr<SocketClient>>;

  bool watch(int fd, uint64_t id, uint32_t events);
  int waitMs(int64_t now) const;
  void accept(int64_t now);
  void serve(uint64_t id, uint32_t events, int64_t now);
  bool serveRequests(SocketClient& client, int64_t now);
  void answer(Client& client, const Request& request, int64_t now);
  void push(Client& client, const Push& push);
  void pushRepeated(int64_t now);
  void flush(SocketClient& client);
  void close(uint64_t id, const std::string& why);

  ServerOptions m_options;
  Dispatcher& m_dispatcher;
  const Log& m_log;
  shared::UniqueFd m_epoll;
  shared::UniqueFd m_wake;  // an eventfd; made in the constructor, so that stop() may come before start()
  shared::UniqueFd m_listener;
  std::unique_ptr<UdpPort> m_udp;  // null without UDP
  std::atomic<bool> m_stopped{false};
  int64_t m_acceptAgainAt = 0;  // when descriptors had run out: not before
  uint64_t m_lastId;            // the last client id given out
  Clients m_clients;            // by id
};

}  // namespace service
