// Stands between UDP peers and a service, and changes what the service says: it is then as if the service did
// it. To the service all peers are one.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <thread>

#include "shared/Address.h"
#include "support/Udp.h"

class UdpMangler {
 public:
  using FromService = std::function<std::optional<Bytes>(const Bytes&, int seen)>;
  using Answer = std::function<std::optional<Bytes>(const Bytes&)>;

  UdpMangler(const std::string& service, FromService fromService, Answer answer)
      : m_change(std::move(fromService)), m_answer(std::move(answer)) {
    EXPECT_TRUE(shared::parseAddress(service, m_service));
    m_replier = m_service;
    m_thread = std::thread([this] { run(); });
  }
  ~UdpMangler() {
    m_stop = true;
    m_thread.join();
  }
  /// Where peers send to.
  const sockaddr_in& address() const { return m_left.address; }

 private:
  void run() {
    while (!m_stop) {
      for (Bytes bytes; !(bytes = m_left.receive(1)).empty();) {
        m_peer = m_left.from;
        const auto answer = m_answer ? m_answer(bytes) : std::nullopt;
        if (answer) m_left.send(m_peer, *answer);
        // What acknowledges goes to where the replies come from.
        const bool ack = bytes.size() > 1 && bytes[1] == PACKET_ACK;
        m_right.send(ack ? m_replier : m_service, bytes);
      }
      for (Bytes bytes; !(bytes = m_right.receive(0)).empty();) {
        if (bytes[1] != PACKET_ACK) m_replier = m_right.from;
        const int seen = m_seen[{bytes[1], sequenceOf(bytes)}]++;
        const auto changed = m_change ? m_change(bytes, seen) : bytes;
        if (changed) m_left.send(m_peer, *changed);
      }
    }
  }

  const FromService m_change;
  const Answer m_answer;
  sockaddr_in m_service{}, m_replier{}, m_peer{};
  PlainPeer m_left, m_right;
  std::map<std::pair<char, uint32_t>, int> m_seen;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};
