// A connection over the UDP transport: one peer of a transport of its own.
//
// Nothing proves that a reply comes from the service: whatever arrives at the transport's port is taken.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "shared/UniqueFd.h"
#include "tools/client/Connection.h"
#include "udp/udp.h"

namespace client {

class UdpConnection : public Connection {
 public:
  /// Sets up a transport. Null, with the problem named, when no socket or thread is to be had.
  static std::unique_ptr<UdpConnection> open(const sockaddr_in& service, std::string& problem);

  void send(std::string_view packet) override;
  size_t unsent() const override { return m_output.size(); }
  Event next(Reply& reply, int64_t deadlineMs, int watched = -1) override;
  int fd() const override { return m_port.fd(); }

 private:
  /// What the transport's thread leaves for ours.
  class Port : public UDP {
   public:
    Port();
    ~Port() override { stop(); }
    bool start(const sockaddr_in& local);
    /// Readable while events wait.
    int fd() const { return m_wake.get(); }
    /// The next event: its UdpEvent, or 0, and the message of UDP_EVENT_DATA.
    std::pair<int, std::string> take();

   private:
    int recvEvent(int event, const sockaddr_in& peer, int64_t sessionId, const uint8_t* data,
                  uint32_t len) override;

    const shared::UniqueFd m_wake;  // an eventfd
    std::mutex m_lock;
    std::deque<std::pair<int, std::string>> m_events;  // guarded by m_lock
  };

  explicit UdpConnection(const sockaddr_in& service) : m_service(service) {}
  void write();

  const sockaddr_in m_service;
  std::deque<std::string> m_output;  // messages that the transport has not taken
  Port m_port;
};

}  // namespace client
