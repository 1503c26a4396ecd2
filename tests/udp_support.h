// What the tests of the UDP transport share: a log that can be waited for, an endpoint that records its
// events, and a peer on a plain socket that answers what it likes.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <vector>

#include "bytes.h"
#include "log.h"
#include "udp.h"

using Bytes = std::vector<uint8_t>;
constexpr auto kDeadline = std::chrono::seconds(30);

/// Values that threads add and a test waits for.
template <class Value>
class Record {
 public:
  void add(const Value& value) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_values.push_back(value);
    m_added.notify_all();
  }
  /// Waits until `count` values fulfil the condition. False at the deadline.
  template <class Condition>
  bool waitFor(Condition condition, int count = 1) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_added.wait_for(
        lock, kDeadline, [&] { return std::count_if(m_values.begin(), m_values.end(), condition) >= count; });
  }
  /// What has been added, which is forgotten when `take` is set.
  std::vector<Value> all(bool take = false) {
    std::lock_guard<std::mutex> lock(m_lock);
    return take ? std::exchange(m_values, {}) : m_values;
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_added;
  std::vector<Value> m_values;
};

inline Record<std::string> g_log;
inline int recordLog(int, const char*, const char* format, ...) {
  char line[2048];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
  g_log.add(line);
  return 0;
}
inline bool logged(const std::string& part, int count = 1) {
  return g_log.waitFor([&](const std::string& line) { return line.find(part) != std::string::npos; }, count);
}

/// A test during which the log is recorded, from empty.
struct UdpTest : testing::Test {
  static void SetUpTestSuite() { logFunc = recordLog; }
  void SetUp() override { g_log.all(true); }
};

inline sockaddr_in loopback(uint16_t port = 0) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// A running transport that records what it is told.
struct Endpoint : UDP {
  struct Event {
    int event;
    int64_t sessionId;
    Bytes message;
  };
  explicit Endpoint(int intervalMs = 25) : Endpoint(UdpTiming{nowMs, intervalMs}) {}
  explicit Endpoint(const UdpTiming& timing) : UDP(timing) {
    const auto entry = [](void* self) -> void* { return static_cast<Endpoint*>(self)->loop(), nullptr; };
    EXPECT_TRUE(createSocket(loopback(), "127.0.0.1", 0) == 0 && startThread(entry, this) == 0);
  }
  ~Endpoint() override { stop(); }
  int recvEvent(int event, const sockaddr_in&, int64_t id, const uint8_t* data, uint32_t len) override {
    events.add({event, id, Bytes(data, data + len)});
    return 0;
  }
  bool saw(int event, int count = 1) {
    return events.waitFor([=](const Event& e) { return e.event == event; }, count);
  }
  void queue(const sockaddr_in& peer, int64_t sessionId, const Bytes& data) {
    auto message = makeSendPack(peer, data.data(), data.size());
    message->sessionId = sessionId;
    EXPECT_TRUE(queueMessage(std::move(message)));
  }
  Record<Event> events;
};

inline Bytes datagram(int type, uint32_t sequence, uint32_t of = 0, uint32_t tl = 0,
                      const Bytes& payload = {}, int64_t sid = 7) {
  UdpPkg packet{};
  packet.dataLength = payload.size();
  packet.totalLength = tl;
  packet.offset = of;
  packet.sessionId = sid;
  std::copy(payload.begin(), payload.end(), packet.payload);
  sealPacket(packet, static_cast<PacketType>(type), sequence);
  const auto* bytes = reinterpret_cast<const uint8_t*>(&packet);
  return Bytes(bytes, bytes + packet.wireLength());
}
inline uint32_t sequenceOf(const Bytes& datagram) {
  return datagram.size() < 28 ? 0 : read32le(&datagram[16]);
}

/// A plain UDP socket on loopback.
struct PlainPeer {
  PlainPeer() {
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
  }
  ~PlainPeer() { close(fd); }
  void send(const sockaddr_in& to, const Bytes& bytes) {
    sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  }
  /// The next datagram; empty when none comes in time.
  Bytes receive(int timeoutMs = 30000) {
    pollfd ready{fd, POLLIN, 0};
    Bytes bytes(2000);
    socklen_t length = sizeof(from);
    if (poll(&ready, 1, timeoutMs) != 1) return {};
    bytes.resize(recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &length));
    return bytes;
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback();
  sockaddr_in from{};  // who sent the last datagram
};
