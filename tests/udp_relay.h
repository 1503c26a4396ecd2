// A relay between two transports that loses, doubles, delays and reorders datagrams, always the same ones:
// what happens to a datagram depends on a seed, its direction, its sequence number and how often it was seen.
#pragma once

#include <atomic>
#include <map>
#include <thread>
#include <tuple>

#include "udp_support.h"

struct Weather {
  unsigned seed;
  unsigned
      losePercent;  // of the first two sends of a datagram; later ones pass, so that the message survives
  unsigned doublePercent;
  unsigned maxDelayMs;  // delays differ, so that datagrams overtake each other
  int loseSynAcks;      // so many acknowledgements of a SYN are lost; all other SYNs and their ACKs pass
};

class Relay {
 public:
  Relay(const sockaddr_in& right, const Weather& weather)
      : m_weather(weather), m_rightAddress(right), m_thread([this] { run(); }) {}
  ~Relay() {
    m_stop = true;
    m_thread.join();
  }
  /// Where the left side sends to.
  const sockaddr_in& address() const { return m_left.address; }

 private:
  void run() {
    while (!m_stop) {
      const Bytes fromLeft = m_left.receive(1);
      if (!fromLeft.empty()) {
        m_leftAddress = m_left.from;
        pass(fromLeft, true);
      }
      for (Bytes bytes; !(bytes = m_right.receive(0)).empty();) pass(bytes, false);
      const auto now = nowMs();
      while (!m_pending.empty() && m_pending.begin()->first <= now) {
        const auto [toRight, bytes] = m_pending.begin()->second;
        m_pending.erase(m_pending.begin());
        toRight ? m_right.send(m_rightAddress, bytes) : m_left.send(m_leftAddress, bytes);
      }
    }
  }

  void pass(const Bytes& bytes, bool toRight) {
    const uint32_t sequence = read32le(&bytes[16]);
    const auto now = nowMs();
    if (sequence == 100000) {
      if (bytes[1] == 2 && m_weather.loseSynAcks-- > 0) return;
      m_pending.emplace(now, std::make_pair(toRight, bytes));
      return;
    }
    const unsigned seen = m_seen[std::make_tuple(toRight, bytes[1], sequence)]++;
    uint32_t dice = (m_weather.seed + sequence * 8 + seen * 2 + toRight) * 2654435761U;
    dice = (dice ^ dice >> 15) * 2246822519U;
    if (seen < 2 && dice % 100 < m_weather.losePercent) return;
    const int copies = dice / 100 % 100 < m_weather.doublePercent ? 2 : 1;
    for (int copy = 0; copy < copies; ++copy) {
      m_pending.emplace(now + (dice >> (8 * copy)) % (m_weather.maxDelayMs + 1),
                        std::make_pair(toRight, bytes));
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
