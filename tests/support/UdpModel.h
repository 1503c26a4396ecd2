// The UDP transport against a literal model of its rules: the same datagrams, messages and clock into both,
// one round after the other, and everything that comes out compared: datagrams byte by byte, events, log
// lines and how long it would sleep. No socket, no thread, no waiting; UdpWrap.cpp takes the system's place.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "support/UdpDatagram.h"
#include "support/UdpWrap.h"
#include "udp/crc32.h"

using Bytes = std::string;

/// What is left of an input, as decisions. All are 0 at its end.
class Choices {
 public:
  Choices(const uint8_t* bytes, size_t size) : m_at(bytes), m_end(bytes + size) {}
  bool more() const { return m_at < m_end; }
  uint32_t below(uint32_t bound) { return byte() % bound; }
  template <class Value, size_t N>
  Value of(const Value (&values)[N]) {
    return values[below(N)];
  }
  uint8_t byte() { return more() ? *m_at++ : 0; }

 private:
  const uint8_t *m_at, *m_end;
};

/// What a message with this id has from an offset on, whoever sends it.
inline const char* patternAt(int64_t id, uint32_t offset) {
  static const Bytes bytes = [] {
    Bytes all;
    for (uint32_t i = 0; i < 20000; ++i) all += static_cast<char>(i % 10000 * 2654435761U >> 24);
    return all;
  }();
  return &bytes[(static_cast<uint64_t>(id) * 31 + offset) % 10000];
}
inline Bytes pattern(int64_t id, uint32_t from, uint32_t length) {
  return Bytes(patternAt(id, from), length);
}

class Model {
 public:
  Model(size_t budget, size_t receivers) : m_budget(budget), m_maxReceivers(receivers) {}

  struct Message {
    uint16_t port;
    int64_t id;
    Bytes bytes;
  };
  std::deque<Message> queue;
  std::deque<std::pair<uint16_t, Bytes>> inbox;
  int64_t now = 0;
  Bytes trace;

  void round() {
    while (const Session* oldest = oldestSession()) {
      if (now - oldest->last < 60000) break;
      line(5, "R_DROP unfinished session:%d, no piece for %d ms RS:%s");
      auto& sessions = m_receivers.at(oldest->port).sessions;
      sessions.erase(sessions.begin() + (oldest - sessions.data()));
    }
    const bool taken = pump();
    if (!m_timers.empty() && m_timers[0]->expiry <= now) return fire();
    if (!inbox.empty()) {
      const auto [port, bytes] = inbox.front();
      inbox.pop_front();
      return receive(port, bytes);
    }
    int64_t wait = m_timers.empty() ? -1 : m_timers[0]->expiry - now;
    if (const Session* oldest = oldestSession()) {
      const int64_t expiry = std::max<int64_t>(oldest->last + 60000 - now, 0);
      wait = wait < 0 ? expiry : std::min(wait, expiry);
    }
    trace += "wait " + std::to_string(taken && !queue.empty() ? 0 : wait) + "\n";
  }

  size_t used() const {
    size_t used = 0;
    for (const auto& [port, receiver] : m_receivers) {
      for (const Session& session : receiver.sessions) used += 128 + session.capacity;
    }
    return used;
  }

 private:
  struct Packet {  // with its timer record
    uint16_t port;
    int type;
    uint32_t sequence, of, tl;
    Bytes payload;
    int64_t id;
    int tc = 0;
    int64_t expiry = 0;
  };
  struct Sender {
    bool open = false;
    uint32_t s = 100000;
    Packet syn;
    std::map<uint32_t, Packet> window;
    std::deque<Packet> q;
  };
  struct Session {
    uint16_t port;
    int64_t id;
    uint32_t total;
    Bytes bytes;
    size_t capacity;
    int64_t last;       // ms
    uint64_t lastTick;  // order
  };
  struct Receiver {
    bool open, completed;
    uint32_t s;
    uint64_t heard;  // order
    std::vector<Session> sessions;
  };

  void line(int priority, const char* message) { trace += std::to_string(priority) + message + "\n"; }
  void event(int event, uint16_t port, int64_t id, const Bytes& message = "") {
    trace += traceOfEvent(event, port, id, message);
  }

  // ---- Sending ----
  void send(Packet& packet) {
    trace += traceOfDatagram(
        packet.port, datagram(packet.type, packet.sequence, packet.of, packet.tl, packet.payload, packet.id));
    packet.expiry = now + 500;
    size_t at = 0;
    while (at < m_timers.size() && m_timers[at]->expiry <= packet.expiry) ++at;
    m_timers.insert(m_timers.begin() + at, &packet);
  }
  bool pump() {
    bool taken = false;
    if (!queue.empty()) {
      const Message message = queue.front();
      const uint64_t key = peerKey(loopback(message.port));
      if (m_senders.count(key) == 0) {
        m_senders[key].syn = {message.port, 4, 100000, 0, 0, "", 0};
        send(m_senders[key].syn);
        line(5, "NEW SENDER  %s");
      }
      auto& q = m_senders[key].q;
      if (q.empty()) {
        taken = true;
        queue.pop_front();
        const uint32_t length = message.bytes.size();
        for (uint32_t of = 0; of < length; of += 1000)
          q.push_back({message.port, 1, 0, of, length, message.bytes.substr(of, 1000), message.id});
      }
    }
    for (auto& [key, sender] : m_senders) {
      auto& window = sender.window;
      while (!sender.q.empty() && window.size() < 5 &&
             (window.empty() || sender.s + 1 <= window.begin()->first + 4)) {
        Packet& packet = window[++sender.s] = sender.q.front();
        sender.q.pop_front();
        packet.sequence = sender.s;
        send(packet);
      }
    }
    return taken;
  }
  void fire() {
    Packet& packet = *m_timers[0];
    line(5, "TIMEOUT: %s  %s");
    if (packet.tc == 5) {
      event(UDP_EVENT_TIMEOUT, packet.port, packet.id);
    } else {
      ++packet.tc;
      send(packet);  // the old place in front is still taken
    }
    m_timers.erase(m_timers.begin());
  }
  void disarm(const Packet& packet) {
    const auto found = std::find(m_timers.begin(), m_timers.end(), &packet);
    if (found == m_timers.end()) return line(6, "event delete failed arg:%s");
    m_timers.erase(found);
  }
  void acknowledged(uint16_t port, const UdpPkg& ack) {
    const auto found = m_senders.find(peerKey(loopback(port)));
    if (found == m_senders.end() || ack.type != 2) return line(5, "S_IGNORERecvStat %s SS:%s");
    Sender& sender = found->second;
    if (!sender.open) {
      if (ack.sequence != 100000) return line(5, "S_IGNORERecvSEQ [%d,%d] %s SS:%s");
      disarm(sender.syn);
      sender.open = true;
      return;
    }
    const auto packet = sender.window.find(ack.sequence);
    if (packet == sender.window.end()) return line(5, "S_IGNORERecvWIN %s SS:%s win:%s");
    disarm(packet->second);
    const int64_t id = packet->second.id;
    sender.window.erase(packet);
    if (ack.totalLength == ack.offset) event(UDP_EVENT_SESSION_FINISH, port, id);
  }

  // ---- Receiving ----
  void receive(uint16_t port, const Bytes& bytes) {
    UdpPkg packet{};
    memcpy(&packet, bytes.data(), std::min(bytes.size(), sizeof(packet)));
    const uint32_t checksum = packet.checksum;
    packet.checksum = 0;
    if (packet.dataLength > 1000 || packet.dataLength + 28U > bytes.size() ||
        crc32(reinterpret_cast<uint8_t*>(&packet), packet.dataLength + 28) != checksum)
      return line(6, "IGNORERecv FAULTPkg ret:%d datalen:%d datacrc:0x%x");
    const auto found = m_receivers.find(port);
    Receiver* r = found != m_receivers.end() ? &found->second : nullptr;
    if (r != nullptr) r->heard = ++m_tick;
    if (packet.type == 4) {
      const bool completed = r != nullptr && r->completed;
      if (r != nullptr && r->open) line(5, "R_CLEANNewSync %s RS:%s");
      if (r == nullptr && m_receivers.size() == m_maxReceivers) forgetOne();
      if (r == nullptr || r->open) {
        line(5, "R_NEW RECEIVER:%s");
        m_receivers[port] = {false, completed, 0, ++m_tick, {}};
      }
      m_receivers[port].s = packet.sequence + 1;
    } else if (packet.type == 1) {
      if (r == nullptr) return line(5, "R_IGNORERecvStat %s RS:%s");
      if (packet.sequence < r->s - 5 || packet.sequence > r->s)
        return line(5, "R_IGNORERecvSEQ [%d,%d] %s RS:%s");
      if (packet.sequence == r->s) {
        if (!reassembled(*r, port, packet)) return;
        r->open = true;
        ++r->s;
      }
      packet.offset += packet.dataLength;
    } else if (packet.type == 5) {
      if (r == nullptr) line(5, "R_IGNORERecvRSNull: %s maybe retrans fin pkg, ack it anyway.");
      if (r != nullptr && packet.sequence != r->s) return line(5, "R_IGNORERecvSEQ [%d,%d] %s RS:%s");
    } else {
      return acknowledged(port, packet);
    }
    trace += traceOfDatagram(
        port, datagram(2, packet.sequence, packet.offset, packet.totalLength, "", packet.sessionId));
    if (packet.type == 5 && r != nullptr) {
      line(5, "R_CLOSE RECEIVER:%s");
      m_receivers.erase(port);
    }
  }

  /// False when the piece is refused.
  bool reassembled(Receiver& r, uint16_t port, const UdpPkg& p) {
    auto session = std::find_if(r.sessions.begin(), r.sessions.end(),
                                [&](const Session& s) { return s.id == p.sessionId; });
    const bool known = session != r.sessions.end();
    const bool fits = uint64_t{p.offset} + p.dataLength <= p.totalLength;
    const char* const complaint = known ? "session:%d offset error:%u local:%u"
                                        : "Not session:%d sessionPair:%d first package offset:%u";
    if (!fits || p.offset != (known ? session->bytes.size() : 0) ||
        (known && p.totalLength != session->total)) {
      line(6, complaint);
      return true;
    }
    const Bytes payload(reinterpret_cast<const char*>(p.payload), p.dataLength);
    if (!known && p.dataLength != 0 && p.dataLength < p.totalLength) {
      if (p.totalLength > m_budget || r.sessions.size() >= 16) return line(6, complaint), false;
      while (used() != 0 && used() + 128 + p.dataLength > m_budget) {
        if (!dropSilentest(r)) return line(6, complaint), false;
      }
      session = r.sessions.insert(session, {port, p.sessionId, p.totalLength, "", 0, 0, 0});
    }
    if (!known && session == r.sessions.end()) {  // a message in one piece, or one that has not begun
      if (p.dataLength == p.totalLength) completed(r, port, p.sessionId, payload);
      return true;
    }
    const size_t end = session->bytes.size() + payload.size();
    size_t capacity = session->capacity;
    if (end > capacity) capacity = std::max<size_t>(std::min<size_t>(2 * capacity, p.totalLength), end);
    while (used() + capacity - session->capacity > m_budget && used() != 128 + session->capacity) {
      if (!dropSilentest(r)) return line(6, complaint), false;
    }
    session->capacity = capacity;
    session->bytes += payload;
    session->last = now;
    session->lastTick = ++m_tick;
    if (end == p.totalLength) {
      const Bytes whole = session->bytes;
      r.sessions.erase(session);
      completed(r, port, p.sessionId, whole);
    }
    return true;
  }
  void completed(Receiver& r, uint16_t port, int64_t id, const Bytes& message) {
    r.completed = true;
    event(UDP_EVENT_DATA, port, id, message);
  }
  void forgetOne() {
    line(5, "R_FORGET RECEIVER:%s");
    const auto worth = [](const auto& entry) {
      return std::pair(entry.second.completed, entry.second.heard);
    };
    m_receivers.erase(std::min_element(m_receivers.begin(), m_receivers.end(),
                                       [&](auto& a, auto& b) { return worth(a) < worth(b); }));
  }
  bool dropSilentest(const Receiver& except) {
    Receiver* silent = nullptr;
    for (auto& [port, r] : m_receivers) {
      if (&r != &except && !r.sessions.empty() && (silent == nullptr || r.heard < silent->heard)) silent = &r;
    }
    if (silent == nullptr) return false;
    line(5, "R_DROP unfinished messages, others need their room RS:%s");
    silent->sessions.clear();
    return true;
  }
  const Session* oldestSession() const {
    const Session* oldest = nullptr;
    for (const auto& [port, r] : m_receivers) {
      for (const Session& session : r.sessions) {
        if (oldest == nullptr || session.lastTick < oldest->lastTick) oldest = &session;
      }
    }
    return oldest;
  }

  const size_t m_budget, m_maxReceivers;
  std::map<uint64_t, Sender> m_senders;
  std::map<uint16_t, Receiver> m_receivers;
  std::vector<Packet*> m_timers;
  uint64_t m_tick = 0;
};

/// The transport, with its inner state within reach.
struct Subject : UDP {
  Subject(size_t budget, size_t receivers) : UDP({[] { return g_wrap.now; }, 500}, budget, receivers) {
    createSocket(loopback(), "", 0);
    g_wrap.trace.clear();
  }
  ~Subject() override { stop(); }
  int recvEvent(int event, const sockaddr_in& peer, int64_t id, const uint8_t* data, uint32_t len) override {
    UDP_CHECK(data == nullptr || memcmp(data, patternAt(id, 0), len) == 0);
    g_wrap.trace +=
        traceOfEvent(event, ntohs(peer.sin_port), id, data == nullptr ? Bytes() : Bytes(data, data + len));
    return 0;
  }
  using UDP::m_memory;
  using UDP::startLoop;
};

/// Both side by side.
class Pair {
 public:
  Pair(size_t budget, size_t receivers)
      : m_model(budget, receivers), m_budget(budget), m_subject(start(budget), receivers) {}

  void setTime(int64_t now) { m_model.now = g_wrap.now = now; }
  void send(uint16_t port, int64_t id, uint32_t length) {
    const Bytes bytes = pattern(id, 0, length);
    auto message = UDP::makeSendPack(loopback(port), reinterpret_cast<const uint8_t*>(bytes.data()), length);
    message->sessionId = id;
    // A full queue would keep its caller waiting.
    const bool room = m_model.queue.size() < 10;
    UDP_CHECK(room ? m_subject.queueMessage(std::move(message))
                   : !m_subject.trySend(loopback(port), nullptr, 0));
    if (!room) return;
    m_model.queue.push_back({port, id, bytes});
  }
  void deliver(uint16_t port, const Bytes& bytes) {
    g_wrap.inbox.push_back({loopback(port), bytes});
    m_model.inbox.push_back({port, bytes});
  }
  /// What came out of this round.
  Bytes round() {
    UDP_CHECK(m_subject.startLoop() == 0);
    m_model.round();
    if (g_wrap.trace != m_model.trace)
      fprintf(stderr, "got\n%s\nwant\n%s\n", g_wrap.trace.c_str(), m_model.trace.c_str());
    UDP_CHECK(g_wrap.trace == m_model.trace);
    UDP_CHECK(m_subject.m_memory.used == m_model.used());
    UDP_CHECK(m_subject.m_memory.used <= m_budget + 128);
    g_wrap.trace.clear();
    return std::exchange(m_model.trace, "");
  }

 private:
  static size_t start(size_t budget) { return g_wrap = Wrap(), budget; }

  Model m_model;
  const size_t m_budget;
  Subject m_subject;
};

/// Plays one input: senders that mostly keep to the rules, acknowledgements, forgeries, and time that passes.
inline void play(const uint8_t* bytes, size_t size) {
  constexpr uint32_t kLengths[] = {0, 1, 999, 1000, 1001, 2500, 5000, 7000};
  constexpr int kSteps[] = {1, 50, 499, 500, 501, 3000, 60000, -700};
  struct Stream {  // what a peer sends
    uint32_t sequence = 100000, offset = 0, total = 0;
    int64_t id = 1;
  } streams[3];
  Choices choose(bytes, size);
  const uint32_t limits = choose.byte();
  Pair pair(6000 + limits % 4 * 1000, 3 - limits / 4 % 3);
  int64_t now = 1000000, id = 1;
  pair.setTime(now);
  while (choose.more()) {
    const auto peer = choose.below(3);
    const auto port = static_cast<uint16_t>(5000 + peer);
    Stream& stream = streams[peer];
    switch (choose.below(8)) {
      case 0:
        pair.send(port, ++id, choose.of(kLengths));
        break;
      case 1:
      case 2: {  // acknowledges something that was sent
        if (g_wrap.sent.empty()) break;
        const auto& [to, sent] = g_wrap.sent[g_wrap.sent.size() - 1 - choose.byte() % g_wrap.sent.size()];
        const uint32_t of = offsetOf(sent) + uint32_t(sent.size()) - 28;
        pair.deliver(ntohs(to.sin_port), datagram(2, sequenceOf(sent), of, totalOf(sent)));
        break;
      }
      case 3:
      case 4:
      case 5: {  // goes on, or says the last piece again
        const uint32_t again = choose.below(8) == 0 ? 1 : 0;
        if (stream.sequence == 100000) {
          pair.deliver(port, datagram(4, stream.sequence++));
          break;
        }
        if (stream.offset == stream.total) {
          stream.offset = 0;
          stream.total = choose.of(kLengths);
          ++stream.id;
        }
        const uint32_t length = std::min(1000U, stream.total - stream.offset);
        pair.deliver(port, datagram(1, stream.sequence - again, stream.offset, stream.total,
                                    pattern(stream.id, stream.offset, length), stream.id));
        if (again != 0) break;
        stream.offset += length;
        ++stream.sequence;
        break;
      }
      case 6: {  // anything
        const uint32_t sequences[] = {100000, stream.sequence, 100001 + choose.below(8), 0, 0xFFFFFFFF};
        const uint32_t offsets[] = {0, stream.offset, choose.byte() * 1000U, 0xFFFFFFFF - choose.below(3)};
        const uint32_t totals[] = {stream.total, choose.of(kLengths), 0xFFFFFFFF, 20000};
        const uint32_t lengths[] = {0, 1, 100, 999, 1000};
        const int64_t ids[] = {stream.id, 100 + int64_t(choose.byte()), -1};
        const uint32_t of = choose.of(offsets);
        const int64_t sid = choose.of(ids);
        Bytes forged = datagram(choose.below(7), choose.of(sequences), of, choose.of(totals),
                                pattern(sid, of, choose.of(lengths)), sid);
        if (choose.below(8) == 0) forged[choose.byte() % forged.size()] ^= choose.byte();
        if (choose.below(8) == 0) forged.resize(choose.byte() * 4);
        pair.deliver(port, forged);
        break;
      }
      case 7:
        pair.setTime(now += choose.of(kSteps));
        break;
    }
    for (uint32_t rounds = choose.below(4); rounds > 0; --rounds) pair.round();
  }
  for (int rounds = 0; rounds < 8; ++rounds) pair.round();
}
