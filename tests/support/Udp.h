// Two ends for tests of the UDP transport: a running one that records its events, and a plain socket.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "base/bytes.h"
#include "support/Support.h"
#include "udp/udp.h"

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
    const std::lock_guard<std::mutex> lock(m_lock);
    m_events.push_back({event, id, data != nullptr ? Bytes(data, data + len) : ""});
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

inline Bytes datagram(int type, uint32_t sequence, uint32_t of = 0, uint32_t tl = 0,
                      const Bytes& payload = {}, int64_t sid = 7) {
  UdpPkg packet{};
  packet.dataLength = payload.size();
  packet.totalLength = tl;
  packet.offset = of;
  packet.sessionId = sid;
  std::copy(payload.begin(), payload.end(), packet.payload);
  sealPacket(packet, static_cast<PacketType>(type), sequence);
  return Bytes(reinterpret_cast<const char*>(&packet), packet.wireLength());
}

inline uint32_t sequenceOf(const Bytes& bytes) {
  return bytes.size() < 28 ? 0 : read32le(reinterpret_cast<const uint8_t*>(bytes.data()) + 16);
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
