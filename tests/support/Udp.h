// Two ends for tests of the UDP transport: a running one that records its events, and a plain socket.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "support/Support.h"
#include "support/UdpDatagram.h"

/// A running transport that records what it is told.
struct Endpoint : UDP {
  struct Event {
    int event;
    int64_t sessionId;
    Bytes message;
  };
  explicit Endpoint(int intervalMs = 25) : UDP(UdpTiming{nowMs, intervalMs}) {
    const auto entry = [](void* self) -> void* {
      EXPECT_EQ(static_cast<Endpoint*>(self)->loop(), 0);
      return nullptr;
    };
    EXPECT_TRUE(createSocket(loopback(), "127.0.0.1", 0) == 0 && startThread(entry, this) == 0);
  }
  ~Endpoint() override { stop(); }
  int stopsItselfAt = 0;  // the event at which it calls stop(); set before it can come
  int recvEvent(int event, const sockaddr_in&, int64_t id, const uint8_t* data, uint32_t len) override {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_events.push_back({event, id, data != nullptr ? Bytes(data, data + len) : ""});
    if (event == stopsItselfAt) stop();
    return 0;
  }
  /// What has happened; of one event only when it is given.
  std::vector<Event> events(int event = 0) {
    const std::lock_guard<std::mutex> lock(m_lock);
    std::vector<Event> found;
    std::copy_if(m_events.begin(), m_events.end(), std::back_inserter(found),
                 [&](const Event& e) { return event == 0 || e.event == event; });
    return found;
  }
  bool saw(int event, size_t count = 1) {
    return eventually([&] { return events(event).size() >= count; });
  }
  void queue(const sockaddr_in& peer, int64_t sessionId, const Bytes& data) {
    auto message = makeSendPack(peer, reinterpret_cast<const uint8_t*>(data.data()), data.size());
    message->sessionId = sessionId;
    EXPECT_TRUE(queueMessage(std::move(message)));
  }

 private:
  std::mutex m_lock;
  std::vector<Event> m_events;
};

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
  Bytes receive(int timeoutMs = 20000) {
    pollfd ready{fd, POLLIN, 0};
    Bytes bytes(2000, 0);
    socklen_t length = sizeof(from);
    if (poll(&ready, 1, timeoutMs) != 1) return "";
    bytes.resize(recvfrom(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &length));
    return bytes;
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback();
  sockaddr_in from{};  // who sent the last datagram
};
