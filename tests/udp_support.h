// What the tests of the UDP transport share: a log that can be waited for, an endpoint that records its
// events, and a peer on a plain socket that speaks the bytes itself.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <string>
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
  std::vector<Value> all() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_values;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_values.clear();
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
inline bool logged(const std::string& text, int count = 1) {
  return g_log.waitFor([&](const std::string& line) { return line.find(text) != std::string::npos; }, count);
}

inline sockaddr_in loopback(uint16_t port = 0) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// A running transport that records what it is told.
class Endpoint : public UDP {
 public:
  struct Event {
    int event;
    int64_t sessionId;
    Bytes message;
  };
  explicit Endpoint(int intervalMs = 25) : Endpoint(UdpTiming{nowMs, intervalMs}) {}
  explicit Endpoint(const UdpTiming& timing) : UDP(timing) {
    EXPECT_EQ(createSocket(loopback(), "127.0.0.1", 0), 0);
    EXPECT_EQ(
        startThread([](void* self) -> void* { return static_cast<Endpoint*>(self)->loop(), nullptr; }, this),
        0);
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

/// A datagram, put together byte by byte; `check` computes its checksum bit by bit.
inline Bytes datagram(int type, uint32_t sequence, uint32_t of = 0, uint32_t tl = 0,
                      const Bytes& payload = {}, int64_t sid = 7) {
  Bytes bytes(28 + payload.size());
  bytes[0] = 1;
  bytes[1] = type;
  write16le(&bytes[2], payload.size());
  write32le(&bytes[8], tl);
  write32le(&bytes[12], of);
  write32le(&bytes[16], sequence);
  write64le(&bytes[20], sid);
  std::copy(payload.begin(), payload.end(), bytes.begin() + 28);
  uint32_t crc = ~0U;
  for (uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320 : 0);
  }
  write32le(&bytes[4], ~crc);
  return bytes;
}

/// A plain UDP socket on loopback.
class PlainPeer {
 public:
  PlainPeer() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
  }
  ~PlainPeer() { close(m_fd); }
  void send(const sockaddr_in& to, const Bytes& bytes) {
    sendto(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  }
  /// The next datagram; empty when none comes in time.
  Bytes receive(int timeoutMs = 30000) {
    pollfd ready{m_fd, POLLIN, 0};
    Bytes bytes(2000);
    socklen_t length = sizeof(from);
    if (poll(&ready, 1, timeoutMs) != 1) return {};
    bytes.resize(recvfrom(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &length));
    return bytes;
  }
  /// The next datagram's type and sequence; what it acknowledges itself is acknowledged.
  uint32_t acknowledge() {
    const Bytes bytes = receive();
    if (bytes.size() < 28) return 0;
    const uint32_t end = read32le(&bytes[12]) + read16le(&bytes[2]);
    send(from, datagram(2, read32le(&bytes[16]), end, read32le(&bytes[8]), {}, read64le(&bytes[20])));
    return read32le(&bytes[16]);
  }
  sockaddr_in address = loopback();
  sockaddr_in from{};  // who sent the last datagram

 private:
  int m_fd;
};
