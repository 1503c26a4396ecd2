// A request, as its caller and as its service see it, beside the bare send of the same bytes.
//
// Never more requests are under way than the send queue has places: a socket that is full is looked at again
// only after a second, which would be all that a stream of requests without answers showed.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "client/client.h"
#include "client/protocol.h"
#include "wire/Funcid.h"
#include "wire/header.h"
#include "wire/protos/amc.pb.h"

namespace {

/// A service that reads and forgets, on an abstract name; its threads end with the process.
class Sink {
 public:
  Sink() : m_name("tarn-bench-" + std::to_string(getpid())) {
    m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(m_listener, address(), length()) != 0 || listen(m_listener, 8) != 0) abort();
    std::thread([this] {
      for (int fd = 0; (fd = accept(m_listener, nullptr, nullptr)) >= 0;) {
        std::thread([this, fd] {
          char bytes[65536];
          for (ssize_t count = 0; (count = recv(fd, bytes, sizeof(bytes), 0)) > 0;) {
            m_received += static_cast<size_t>(count);
          }
          close(fd);
        }).detach();
      }
    }).detach();
  }
  const std::string& name() const { return m_name; }
  /// Bytes that have arrived over all connections.
  size_t received() const { return m_received; }
  void await(size_t bytes) const {
    while (m_received < bytes) std::this_thread::yield();
  }
  int connected() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, address(), length()) != 0) abort();
    return fd;
  }

 private:
  const sockaddr* address() {
    m_address.sun_family = AF_UNIX;
    memcpy(m_address.sun_path + 1, m_name.data(), m_name.size());
    return reinterpret_cast<const sockaddr*>(&m_address);
  }
  socklen_t length() const {
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + m_name.size());
  }

  const std::string m_name;
  sockaddr_un m_address{};
  int m_listener = -1;
  std::atomic<size_t> m_received{0};
};

Sink& sink() {
  static auto& instance = *new Sink;
  return instance;
}

std::string packed() {
  amc::RequestCPUHighFreq message;
  message.set_scene(3);
  message.set_level(2);
  message.set_timeoutms(1000);
  message.set_action(5);
  const std::string body = message.SerializeAsString();
  uint8_t* packet = nullptr;
  uint32_t length = 0;
  genReqPack(FUNCID_REQUEST_CPU_HIGH_FREQ, reinterpret_cast<const uint8_t*>(body.data()),
             static_cast<int32_t>(body.size()), &packet, &length, 1, 1);
  const std::string bytes(reinterpret_cast<char*>(packet), length);
  delete[] packet;
  return bytes;
}

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

constexpr int kBurst = 5;  // places in the send queue

/// Times one action: what the caller waits (delivered false), or until its bytes have reached the service.
template <class Action>
void measure(benchmark::State& state, bool delivered, Action act) {
  const size_t bytes = packed().size();
  const int burst = delivered ? 1 : kBurst;
  for (auto _ : state) {
    const size_t before = sink().received();
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < burst; ++i) act();
    if (delivered) sink().await(before + bytes);
    state.SetIterationTime(secondsSince(start) / burst);
    sink().await(before + bytes * static_cast<size_t>(burst));
  }
}

/// The floor: the calling thread puts the bytes into the socket itself.
void bareSend(benchmark::State& state, bool delivered) {
  const std::string bytes = packed();
  const int fd = sink().connected();
  measure(state, delivered, [&] { benchmark::DoNotOptimize(send(fd, bytes.data(), bytes.size(), 0)); });
  close(fd);
}
BENCHMARK_CAPTURE(bareSend, caller, false)->UseManualTime();
BENCHMARK_CAPTURE(bareSend, delivered, true)->UseManualTime();

/// The library's own: engine look-ups, message, packet, queue, and for `delivered` the engine thread's send.
void request(benchmark::State& state, bool delivered) {
  g_client.init(sink().name(), 0, "bench", nullptr);
  if (!g_client.isRunning()) state.SkipWithError("no engine");
  measure(state, delivered, [] { benchmark::DoNotOptimize(requestCpuHighFreq(3, 5, 2, 1000, 1, 1)); });
}
BENCHMARK_CAPTURE(request, caller, false)->UseManualTime();
BENCHMARK_CAPTURE(request, delivered, true)->UseManualTime();

/// Of this, the message and the packet alone.
void buildPacket(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(packed());
}
BENCHMARK(buildPacket);

}  // namespace

BENCHMARK_MAIN();
