// Messages over the reliable UDP transport on loopback, one at a time, beside the bare system calls for the
// same datagrams: each sent, received and answered by 28 bytes, from a single thread.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "base/log.h"
#include "udp/udp.h"

namespace {

sockaddr_in loopback() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// A running transport that counts the messages that arrive, and those of its own that were acknowledged.
class Counter : public UDP {
 public:
  Counter() {
    createSocket(loopback(), "127.0.0.1", 0);
    startThread([](void* self) -> void* { return static_cast<Counter*>(self)->loop(), nullptr; }, this);
  }
  ~Counter() override { stop(); }
  int recvEvent(int, const sockaddr_in&, int64_t, const uint8_t*, uint32_t) override {
    const std::lock_guard<std::mutex> lock(m_lock);
    ++m_events;
    m_counted.notify_all();
    return 0;
  }
  void waitFor(int64_t count) {
    std::unique_lock<std::mutex> lock(m_lock);
    m_counted.wait(lock, [&] { return m_events >= count; });
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_counted;
  int64_t m_events = 0;  // guarded by m_lock
};

int quiet(int /*priority*/, const char* /*tag*/, const char* /*format*/, ...) {
  return 0;
}

void transport(benchmark::State& state) {
  logFunc = quiet;
  const std::vector<uint8_t> message(state.range(0), 1);
  Counter left;
  Counter right;
  int64_t count = 0;
  for (auto iteration : state) {
    static_cast<void>(iteration);
    left.send(right.localAddress(), message.data(), message.size());
    left.waitFor(++count);  // acknowledged, thus arrived
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(transport)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000)->UseRealTime();

void bareSystemCalls(benchmark::State& state) {
  int sockets[2];
  sockaddr_in addresses[2];
  for (int end = 0; end < 2; ++end) {
    sockets[end] = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    addresses[end] = loopback();
    socklen_t length = sizeof(sockaddr_in);
    auto* address = reinterpret_cast<sockaddr*>(&addresses[end]);
    if (bind(sockets[end], address, length) != 0 || getsockname(sockets[end], address, &length) != 0) {
      state.SkipWithError("no socket");
    }
  }
  uint8_t bytes[udp::kMaxDatagram] = {};
  const auto pass = [&](int from, size_t count) {
    const auto* to = reinterpret_cast<const sockaddr*>(&addresses[1 - from]);
    if (sendto(sockets[from], bytes, count, 0, to, sizeof(sockaddr_in)) != static_cast<ssize_t>(count) ||
        recvfrom(sockets[1 - from], bytes, sizeof(bytes), 0, nullptr, nullptr) < 0) {
      state.SkipWithError("no datagram");
    }
  };
  for (auto iteration : state) {
    static_cast<void>(iteration);
    for (int64_t left = state.range(0); left > 0; left -= udp::kMaxPayload) {
      pass(0, udp::kHeaderLength + std::min<int64_t>(left, udp::kMaxPayload));
      pass(1, udp::kHeaderLength);
    }
  }
  for (const int fd : sockets) close(fd);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(bareSystemCalls)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000)->UseRealTime();

}  // namespace
