// A relay between two transports that loses, doubles, delays and so reorders datagrams. What happens to one
// depends on a seed, its direction, its sequence number and how often it was seen: always the same.
#pragma once

#include <atomic>
#include <map>
#include <thread>
#include <tuple>

#include "support/Udp.h"

struct Weather {
  unsigned seed;
  unsigned losePercent;  // of the first two sends of a datagram; the later ones pass: the message survives
  unsigned doublePercent;
  unsigned maxDelayMs;
  int loseSynAcks;  // so many ACKs of a SYN; beyond, SYN and first DATA pass unharmed
};

class Relay {
 public:
  Relay(const sockaddr_in& right, const Weather& weather) : m_weather(weather), m_rightAddress(right) {
    m_thread = std::thread([this] { run(); });
  }
  ~Relay() {
    m_stop = true;
    m_thread.join();
  }
  /// Where the left side sends to.
  const sockaddr_in& address() const { return m_left.address; }

 private:
  void run() {
    while (!m_stop) {
      for (Bytes bytes; !(bytes = m_left.receive(1)).empty(); m_leftAddress = m_left.from) pass(bytes, true);
      for (Bytes bytes; !(bytes = m_right.receive(0)).empty();) pass(bytes, false);
      for (; !m_pending.empty() && m_pending.begin()->first <= nowMs(); m_pending.erase(m_pending.begin())) {
        const auto& [toRight, bytes] = m_pending.begin()->second;
        toRight ? m_right.send(m_rightAddress, bytes) : m_left.send(m_leftAddress, bytes);
      }
    }
  }

  void pass(const Bytes& bytes, bool toRight) {
    const bool opening = sequenceOf(bytes) <= udp::kFirstSequence + 1;
    if (sequenceOf(bytes) == udp::kFirstSequence && uint8_t(bytes[1]) == PACKET_ACK &&
        m_weather.loseSynAcks-- > 0)
      return;
    const unsigned seen = m_seen[{toRight, bytes[1], sequenceOf(bytes)}]++;
    uint32_t dice = (m_weather.seed + sequenceOf(bytes) * 8 + seen * 2 + toRight) * 2654435761U;
    dice = (dice ^ dice >> 15) * 2246822519U;
    if (!opening && seen < 2 && dice % 100 < m_weather.losePercent) return;
    const int copies = !opening && dice / 100 % 100 < m_weather.doublePercent ? 2 : 1;
    for (int copy = 0; copy < copies; ++copy) {
      const unsigned delay = opening ? 0 : (dice >> 8 * copy) % (m_weather.maxDelayMs + 1);
      m_pending.emplace(nowMs() + delay, std::make_pair(toRight, bytes));
    }
  }

  Weather m_weather;
  const sockaddr_in m_rightAddress;
  sockaddr_in m_leftAddress{};
  PlainPeer m_left, m_right;
  std::multimap<int64_t, std::pair<bool, Bytes>> m_pending;  // by the time when they go on
  std::map<std::tuple<bool, uint8_t, uint32_t>, unsigned> m_seen;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};
