// A flawed service on a local socket.
#pragma once

#include <sched.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>

#include "shared/UniqueFd.h"
#include "tools/check/FlawedServer.h"

namespace check {

/// Listens on an abstract name. It binds threads of this process alone, to one CPU, and pushes to whoever has
/// registered every 20 ms.
class FlawedService : public FlawedServer {
 public:
  explicit FlawedService(Flaw flaw) : FlawedServer(flaw) {}
  ~FlawedService() override;
  /// False with the problem named.
  bool start(std::string& problem);
  const std::string& name() const { return m_name; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Client {
    std::string in, out;
    std::string held;  // an answer that is kept back
    uint64_t requests = 0;
    bool isRegistered = false, isDeaf = false, isGone = false;
  };
  struct Bound {
    cpu_set_t before;
    std::map<int, Clock::time_point> until;  // by client
  };
  using Ends = std::function<bool(int client, Clock::time_point until)>;

  void serve() override;
  void admit(int fd);
  void serveClient(int fd);
  bool takeRequests(int fd, Client& client);
  std::string answerTo(Client& client, const uint8_t* header, uint32_t status);
  void leave(int fd, Client& client);
  bool obey(int fd, Client& client, uint16_t funcid, const std::string& body, uint32_t& status);
  template <class Message>
  bool reads(Message& message, const std::string& body) const;
  bool bindThread(int fd, int tid, int timeout);
  void unbind(const Ends& ends);
  void push(Client& client) const;
  void flush(int fd, Client& client);

  std::string m_name;
  shared::UniqueFd m_listener;
  std::map<int, Client> m_clients;  // all from here on: the thread's
  std::map<int, Bound> m_bound;     // by thread
  int m_last = -1;                  // who came last
  Clock::time_point m_nextPush = Clock::now();
};

}  // namespace check
