// The reliable UDP transport: its checksum, its way of a message, its goodput beside ENet's, in bad weather
// beside what the window and the timer allow, and what its rounds cost.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <enet/enet.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <thread>
#include <vector>

#include "base/log.h"
#include "support/Rows.h"
#include "udp/crc32.h"
#include "udp/udp.h"

static std::atomic<int64_t> g_blocks{0};

// Takes the place of the C library's malloc(), which operator new calls too.
extern "C" void* __libc_malloc(size_t bytes);
extern "C" void* malloc(size_t bytes) {
  g_blocks.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(bytes);
}

namespace {

int quiet(int /*priority*/, const char* /*tag*/, const char* /*format*/, ...) {
  return 0;
}
const bool g_quiet = (logFunc = quiet) != nullptr;

using Clock = std::chrono::steady_clock;
double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double processorSeconds() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
         static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6;
}

sockaddr_in loopback(uint32_t host = INADDR_LOOPBACK, uint16_t port = 0) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(host);
  return address;
}

/// A plain socket on loopback.
struct Socket {
  explicit Socket(uint32_t host = INADDR_LOOPBACK) : address(loopback(host)) {
    socklen_t length = sizeof(address);
    auto* name = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd, name, length) != 0 || getsockname(fd, name, &length) != 0) abort();
  }
  ~Socket() { close(fd); }
  ssize_t send(const sockaddr_in& to, const void* bytes, size_t length) const {
    return sendto(fd, bytes, length, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  }
  ssize_t receive(void* bytes, size_t size, int flags = 0, sockaddr_in* from = nullptr) const {
    socklen_t length = sizeof(*from);
    return recvfrom(fd, bytes, size, flags, reinterpret_cast<sockaddr*>(from),
                    from != nullptr ? &length : nullptr);
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address;
};

// ---- The checksum
// -------------------------------------------------------------------------------------------

void crcOurs(benchmark::State& state) {
  const std::vector<uint8_t> datagram(udp::kMaxDatagram, 'x');
  const udp::CrcWay* way = udp::crcWay(static_cast<unsigned>(state.range(0)));
  if (way == nullptr) return state.SkipWithError("this processor has no instruction for it");
  const auto start = Clock::now();
  for (auto _ : state) {
    for (int i = 0; i < 10000; ++i)
      benchmark::DoNotOptimize(way->update(~0U, datagram.data(), datagram.size()));
  }
  state.counters["GB_per_s"] =
      static_cast<double>(state.iterations()) * 1e4 * udp::kMaxDatagram / secondsSince(start) / 1e9;
}
BENCHMARK(crcOurs)->Name("crc")->Arg(0)->Arg(1)->Iterations(20);

void crcZlib(benchmark::State& state) {
  const std::vector<uint8_t> datagram(udp::kMaxDatagram, 'x');
  for (auto _ : state) {
    for (int i = 0; i < 10000; ++i)
      benchmark::DoNotOptimize(crc32(0UL, datagram.data(), static_cast<uInt>(datagram.size())));
  }
}
BENCHMARK(crcZlib)->Name("crc_zlib")->Iterations(20);

// ---- One message
// --------------------------------------------------------------------------------------------

/// A running transport that tells of what arrives.
class End : public UDP {
 public:
  End() {
    sem_init(&m_arrived, 0, 0);
    sem_init(&m_finished, 0, 0);
    createSocket(loopback(), "127.0.0.1", 0);
    startThread([](void* self) -> void* { return static_cast<End*>(self)->loop(), nullptr; }, this);
  }
  ~End() override { stop(); }
  int recvEvent(int event, const sockaddr_in&, int64_t, const uint8_t*, uint32_t) override {
    if (event == UDP_EVENT_DATA) m_last = Clock::now();
    if (event == UDP_EVENT_TIMEOUT) abort();
    sem_post(event == UDP_EVENT_DATA ? &m_arrived : &m_finished);
    return 0;
  }
  Clock::time_point awaitArrival() { return sem_wait(&m_arrived), m_last; }
  void awaitAck() { sem_wait(&m_finished); }

 private:
  sem_t m_arrived, m_finished;
  Clock::time_point m_last;  // handed over by m_arrived
};

/// The same calls and nothing else: a pipe wakes the sending thread, a datagram the receiving one.
class BareEnds {
 public:
  BareEnds() {
    sem_init(&m_arrived, 0, 0);
    if (pipe(m_pipe) != 0) abort();
    m_sender = std::thread([this] {
      char bytes[100] = {};
      for (int woken = 0;
           wait(m_pipe[0], m_left.fd) == m_pipe[0] && read(m_pipe[0], &woken, 4) == 4 && woken > 0;)
        m_left.send(m_right.address, bytes, sizeof(bytes));
    });
    m_receiver = std::thread([this] {
      for (char bytes[2000]; wait(m_right.fd, m_right.fd) > 0 && m_right.receive(bytes, sizeof(bytes)) > 1;) {
        m_last = Clock::now();
        sem_post(&m_arrived);
      }
    });
  }
  ~BareEnds() {
    wake(0);
    m_sender.join();
    m_left.send(m_right.address, "", 1);
    m_receiver.join();
    for (int end : m_pipe) close(end);
  }
  void send() { wake(1); }
  Clock::time_point awaitArrival() { return sem_wait(&m_arrived), m_last; }

 private:
  static int wait(int first, int second) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(first, &readable);
    FD_SET(second, &readable);
    select(std::max(first, second) + 1, &readable, nullptr, nullptr, nullptr);
    return FD_ISSET(first, &readable) ? first : second;
  }
  void wake(int value) {
    if (write(m_pipe[1], &value, 4) != 4) abort();
  }
  int m_pipe[2];
  Socket m_left, m_right;
  sem_t m_arrived;
  Clock::time_point m_last;
  std::thread m_sender, m_receiver;
};

/// All threads are asleep when a message is sent.
template <class Once>
void latency(benchmark::State& state, Once once) {
  std::vector<double> taken;
  for (auto _ : state) {
    for (int i = 0; i < 2000; ++i) {
      usleep(100);
      const auto start = Clock::now();
      taken.push_back(std::chrono::duration<double>(once() - start).count() * 1e6);
    }
  }
  std::sort(taken.begin(), taken.end());
  state.counters["p50_us"] = taken[taken.size() / 2];
}

void latencyOurs(benchmark::State& state) {
  End left, right;
  const uint8_t message[100] = {};
  latency(state, [&] {
    left.send(right.localAddress(), message, sizeof(message));
    const auto arrived = right.awaitArrival();
    left.awaitAck();
    return arrived;
  });
}
BENCHMARK(latencyOurs)->Name("latency")->Iterations(1);

void latencyBare(benchmark::State& state) {
  BareEnds ends;
  latency(state, [&] { return ends.send(), ends.awaitArrival(); });
}
BENCHMARK(latencyBare)->Name("latency_floor")->Iterations(1);

// ---- Many messages, beside ENet
// -----------------------------------------------------------------------------

int64_t messagesOf(int64_t size) {
  return std::max<int64_t>(std::min<int64_t>(20000, 8000000 / size), 8);
}

void report(benchmark::State& state, Clock::time_point start, double used) {
  const double megabytes = static_cast<double>(messagesOf(state.range(0)) * state.range(0)) / 1e6;
  state.counters["MB_per_s"] = megabytes / secondsSince(start);
  state.counters["cpu_ms_per_MB"] = (processorSeconds() - used) / megabytes * 1e3;
}

void goodputOurs(benchmark::State& state) {
  const std::vector<uint8_t> message(static_cast<size_t>(state.range(0)), 'x');
  End left, right;
  const int64_t count = messagesOf(state.range(0));
  for (auto _ : state) {
    const double used = processorSeconds();
    const auto start = Clock::now();
    for (int64_t i = 0; i < count; ++i)
      left.send(right.localAddress(), message.data(), static_cast<uint32_t>(message.size()));
    for (int64_t i = 0; i < count; ++i) right.awaitArrival();
    report(state, start, used);
  }
}
BENCHMARK(goodputOurs)->Name("goodput")->Arg(100)->Arg(1000)->Arg(10000)->Arg(1000000)->Iterations(1);

/// ENet with at most five datagrams of a thousand bytes, or five messages, unacknowledged. checksum: as ours
/// always has one.
class Enet {
 public:
  Enet(size_t size, bool checksum) : m_size(size) {
    static const int initialized = enet_initialize();
    ENetAddress any{};
    any.host = htonl(INADDR_LOOPBACK);
    m_server = enet_host_create(&any, 1, 1, 0, 0);
    m_client = enet_host_create(nullptr, 1, 1, 0, 0);
    if (initialized != 0 || m_server == nullptr || m_client == nullptr) abort();
    for (ENetHost* host : {m_server, m_client}) {
      host->mtu = 1000 + sizeof(ENetProtocolHeader) + sizeof(ENetProtocolSendFragment) + (checksum ? 4 : 0);
      host->checksum = checksum ? enet_crc32 : nullptr;
    }
    enet_socket_get_address(m_server->socket, &m_server->address);
    m_server->address.host = htonl(INADDR_LOOPBACK);
    m_thread = std::thread([this] { serve(); });
    m_peer = enet_host_connect(m_client, &m_server->address, 1, 0);
    ENetEvent event;
    if (enet_host_service(m_client, &event, 5000) <= 0 || event.type != ENET_EVENT_TYPE_CONNECT) abort();
    m_peer->windowSize = 5 * 1000;
    enet_peer_throttle_configure(m_peer, 5000, 32, 0);  // never below the window
  }
  ~Enet() {
    m_stop = true;
    m_thread.join();
    enet_host_destroy(m_client);
    enet_host_destroy(m_server);
  }
  void exchange(int64_t count) {
    const std::vector<uint8_t> message(m_size, 'x');
    int64_t sent = 0;
    for (m_received = 0; m_received < count;) {
      for (; sent < count && m_outstanding < 5; ++sent, ++m_outstanding) {
        ENetPacket* packet = enet_packet_create(message.data(), m_size, ENET_PACKET_FLAG_RELIABLE);
        packet->userData = &m_outstanding;
        packet->freeCallback = [](ENetPacket* p) { --*static_cast<int*>(p->userData); };
        enet_peer_send(m_peer, 0, packet);
      }
      service(m_client, [](const ENetEvent&) {});
      if (sent < count && m_outstanding < 5) continue;
      if (m_received < count) wait(m_client);
    }
  }

 private:
  template <class Handle>
  static void service(ENetHost* host, Handle handle) {
    for (ENetEvent event; enet_host_service(host, &event, 0) > 0;) handle(event);
  }
  static void wait(ENetHost* host) {
    enet_uint32 condition = ENET_SOCKET_WAIT_RECEIVE;
    enet_socket_wait(host->socket, &condition, 20);
  }
  void serve() {
    while (!m_stop) {
      service(m_server, [this](const ENetEvent& event) {
        if (event.type != ENET_EVENT_TYPE_RECEIVE) return;
        enet_packet_destroy(event.packet);
        ++m_received;
      });
      wait(m_server);
    }
  }
  const size_t m_size;
  ENetHost *m_server, *m_client;
  ENetPeer* m_peer = nullptr;
  std::thread m_thread;
  std::atomic<bool> m_stop{false};
  std::atomic<int64_t> m_received{0};
  int m_outstanding = 0;
};

void goodputEnet(benchmark::State& state, bool checksum) {
  Enet enet(static_cast<size_t>(state.range(0)), checksum);
  for (auto _ : state) {
    const double used = processorSeconds();
    const auto start = Clock::now();
    enet.exchange(messagesOf(state.range(0)));
    report(state, start, used);
  }
}
BENCHMARK_CAPTURE(goodputEnet, checksum, true)
    ->Name("enet")
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(1000000)
    ->Iterations(1);
BENCHMARK_CAPTURE(goodputEnet, plain, false)
    ->Name("enet_plain")
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(1000000)
    ->Iterations(1);

// ---- Bad weather
// --------------------------------------------------------------------------------------------

/// Whether the n-th sending of a packet is lost: always the same for the same seed. The opening never is.
bool isLost(uint32_t percent, bool toRight, uint32_t sequence, unsigned n) {
  uint32_t dice = (sequence * 16 + n * 2 + (toRight ? 1 : 0) + 77) * 2654435761U;
  dice = (dice ^ dice >> 15) * 2246822519U;
  dice = (dice ^ dice >> 13) * 3266489917U;
  return sequence > udp::kFirstSequence && (dice ^ dice >> 16) % 100 < percent;
}

class Relay {
 public:
  Relay(const sockaddr_in& right, uint32_t percent)
      : m_right(right), m_percent(percent), m_thread([this] { run(); }) {}
  ~Relay() {
    m_left.send(m_left.address, "", 1);
    m_thread.join();
  }
  const sockaddr_in& address() const { return m_left.address; }

 private:
  void run() {
    sockaddr_in left{}, from{};
    for (UdpPkg packet;;) {
      fd_set readable;
      FD_ZERO(&readable);
      for (const Socket* end : {&m_left, &m_beyond}) FD_SET(end->fd, &readable);
      select(std::max(m_left.fd, m_beyond.fd) + 1, &readable, nullptr, nullptr, nullptr);
      for (const Socket* end : {&m_left, &m_beyond}) {
        ssize_t got = 0;
        while ((got = end->receive(&packet, sizeof(packet), MSG_DONTWAIT, &from)) > 0) {
          if (got == 1) return;
          const bool toRight = end == &m_left;
          if (toRight) left = from;
          const uint32_t sequence = packet.sequence;
          if (isLost(m_percent, toRight, sequence, m_seen[{toRight, sequence}]++)) continue;
          toRight ? m_beyond.send(m_right, &packet, static_cast<size_t>(got))
                  : m_left.send(left, &packet, static_cast<size_t>(got));
        }
      }
    }
  }
  Socket m_left, m_beyond;
  const sockaddr_in m_right;
  const uint32_t m_percent;
  std::map<std::pair<bool, uint32_t>, unsigned> m_seen;
  std::thread m_thread;
};

/// What the window and the timer allow in the same weather, when nothing else takes any time: milliseconds
/// until the last of `packets` has arrived.
int64_t allowedMs(uint32_t percent, uint32_t packets) {
  std::map<uint32_t, std::pair<int64_t, unsigned>> window;  // when next sent, how often sent
  std::map<uint32_t, unsigned> answered;
  uint32_t next = udp::kFirstSequence + 1, expected = next;
  const uint32_t end = next + packets;
  int64_t now = 0;
  const auto send = [&](uint32_t sequence) {
    auto& [due, sends] = window[sequence];
    due = now + udp::kRetransmitMs;
    if (isLost(percent, true, sequence, sends++) || sequence > expected) return;
    expected = std::max(expected, sequence + 1);
    if (!isLost(percent, false, sequence, answered[sequence]++)) window.erase(sequence);
  };
  while (expected < end) {
    while (next < end && (window.empty() || next <= window.begin()->first + udp::kSequenceSpan)) send(next++);
    if (expected == end) break;
    now = INT64_MAX;
    for (const auto& [sequence, state] : window) now = std::min(now, state.first);
    std::vector<uint32_t> due;
    for (const auto& [sequence, state] : window)
      if (state.first == now) due.push_back(sequence);
    for (const uint32_t sequence : due) send(sequence);
  }
  return now;
}

constexpr uint32_t packetsIn(int64_t percent) {
  return percent == 1 ? 400 : 150;
}

void weather(benchmark::State& state) {
  const auto percent = static_cast<uint32_t>(state.range(0));
  const uint32_t bytes = packetsIn(percent) * 1000;
  const std::vector<uint8_t> message(bytes, 'x');
  for (auto _ : state) {
    End left, right;
    Relay relay(right.localAddress(), percent);
    const auto start = Clock::now();
    left.send(relay.address(), message.data(), bytes);
    right.awaitArrival();
    state.counters["MB_per_s"] = bytes / secondsSince(start) / 1e6;
  }
}
BENCHMARK(weather)->Name("loss")->Arg(1)->Arg(5)->Iterations(1);

void weatherAllowed(benchmark::State& state) {
  const auto percent = static_cast<uint32_t>(state.range(0));
  for (auto _ : state)
    state.counters["MB_per_s"] =
        packetsIn(percent) * 1e3 / static_cast<double>(allowedMs(percent, packetsIn(percent))) * 1e3 / 1e6;
}
BENCHMARK(weatherAllowed)->Name("loss_floor")->Arg(1)->Arg(5)->Iterations(1);

// ---- Rounds
// -------------------------------------------------------------------------------------------------

/// A transport that is turned round by hand, on a clock that stands still, beside one peer that talks.
struct Turned : UDP {
  Turned() : UDP(UdpTiming{[] { return int64_t{1}; }, udp::kRetransmitMs}) {
    createSocket(loopback(), "127.0.0.1", 0);
  }
  ~Turned() override { stop(); }
  int recvEvent(int, const sockaddr_in&, int64_t, const uint8_t*, uint32_t) override { return 0; }
  using UDP::startLoop;

  void from(const Socket& socket, PacketType type, uint32_t sequence, uint32_t length = 0) {
    UdpPkg packet;
    clearHeader(packet);
    packet.dataLength = static_cast<uint16_t>(length);
    packet.totalLength = packet.offset = type == PACKET_ACK ? 1 : length;
    if (type == PACKET_DATA) packet.offset = 0;
    sealPacket(packet, type, sequence);
    socket.send(localAddress(), &packet, packet.wireLength());
    startLoop();
  }
  /// Peers that were heard, and as many that were sent a message which is not acknowledged.
  void know(int64_t count) {
    const uint8_t byte = 0;
    for (uint32_t i = 0; i < count; ++i) {
      from(Socket(0x7F010000 + i), PACKET_SYN, 1);
      send(loopback(0x7F010000 + i, 9), &byte, 1);
      startLoop();
    }
  }
};

/// Of one peer among many: its message of 100 bytes, ours to it, and the acknowledgements of both.
void rounds(benchmark::State& state) {
  Turned transport;
  transport.know(state.range(0) - 1);
  const Socket peer;
  const uint8_t message[100] = {};
  char bytes[2000];
  const auto quiet = [&] {
    while (peer.receive(bytes, sizeof(bytes), MSG_DONTWAIT) > 0) {
    }
  };
  uint32_t theirs = udp::kFirstSequence, ours = udp::kFirstSequence;
  transport.from(peer, PACKET_SYN, theirs);
  transport.send(peer.address, nullptr, 0);
  transport.startLoop();
  transport.from(peer, PACKET_ACK, ours);
  double blocksData = 0, blocksAck = 0, blocksSend = 0;
  const auto counted = [](double& sum, auto act) {
    const int64_t before = g_blocks;
    act();
    sum += static_cast<double>(g_blocks - before);
  };
  for (auto _ : state) {
    quiet();
    counted(blocksData, [&] { transport.from(peer, PACKET_DATA, ++theirs, sizeof(message)); });
    counted(blocksSend, [&] {
      transport.send(peer.address, message, sizeof(message));
      transport.startLoop();
    });
    counted(blocksAck, [&] { transport.from(peer, PACKET_ACK, ++ours); });
  }
  using benchmark::Counter;
  state.counters["blocks_data"] = Counter(blocksData, Counter::kAvgIterations);
  state.counters["blocks_ack"] = Counter(blocksAck, Counter::kAvgIterations);
  state.counters["blocks_send"] = Counter(blocksSend, Counter::kAvgIterations);
}
BENCHMARK(rounds)->Name("rounds")->Arg(1)->Arg(10)->Arg(1000)->Arg(10000)->Iterations(3000);

const std::string kPeers = "cost against peers", kLoss = "goodput against loss";
const Row kRows[] = {
    {"CRC-32 of 1028 bytes x 10000, portable, beside zlib", "us", "crc/0", "crc_zlib", "time", atMost(1.0)},
    {"CRC-32, the processor's instructions", "GB/s", "crc/1", "", "GB_per_s", atLeast(5)},
    {"UDP, 100 bytes from send to recvEvent, p50", "us", "latency", "latency_floor", "p50_us", atMost(1.3)},
    {"UDP goodput, messages of 100 B, beside ENet", "MB/s", "goodput/100", "enet/100", "MB_per_s",
     atLeast(1)},
    {"UDP goodput, 1 KB, beside ENet", "MB/s", "goodput/1000", "enet/1000", "MB_per_s", atLeast(1)},
    {"UDP goodput, 10 KB, beside ENet", "MB/s", "goodput/10000", "enet/10000", "MB_per_s", atLeast(1)},
    {"UDP goodput, 1 MB, beside ENet", "MB/s", "goodput/1000000", "enet/1000000", "MB_per_s", atLeast(1)},
    {"UDP processor time per MB, 100 B", "ms", "goodput/100", "enet/100", "cpu_ms_per_MB", atMost(0.9)},
    {"UDP processor time per MB, 1 KB", "ms", "goodput/1000", "enet/1000", "cpu_ms_per_MB", atMost(0.9)},
    {"UDP processor time per MB, 10 KB", "ms", "goodput/10000", "enet/10000", "cpu_ms_per_MB", atMost(0.9)},
    {"UDP processor time per MB, 1 MB", "ms", "goodput/1000000", "enet/1000000", "cpu_ms_per_MB",
     atMost(0.9)},
    {"the same, 100 B, ENet without checksum", "ms", "goodput/100", "enet_plain/100", "cpu_ms_per_MB"},
    {"the same, 1 KB, ENet without checksum", "ms", "goodput/1000", "enet_plain/1000", "cpu_ms_per_MB"},
    {"the same, 1 MB, ENet without checksum", "ms", "goodput/1000000", "enet_plain/1000000", "cpu_ms_per_MB"},
    {"UDP goodput, 1 KB, beside ENet without checksum", "MB/s", "goodput/1000", "enet_plain/1000",
     "MB_per_s"},
    {"UDP goodput, 1 MB, beside ENet without checksum", "MB/s", "goodput/1000000", "enet_plain/1000000",
     "MB_per_s"},
    {"UDP goodput at 1 % loss each way", "MB/s", "loss/1", "loss_floor/1", "MB_per_s", atLeast(0.9), kLoss,
     1},
    {"UDP goodput at 5 % loss each way", "MB/s", "loss/5", "loss_floor/5", "MB_per_s", atLeast(0.9), kLoss,
     5},
    {"UDP round with 10 peers", "us", "rounds/10", "rounds/1", "time", atMost(1.2), kPeers, 10},
    {"UDP round with 1,000 peers", "us", "rounds/1000", "rounds/1", "time", atMost(1.2), kPeers, 1000},
    {"UDP round with 10,000 peers", "us", "rounds/10000", "rounds/1", "time", atMost(1.2), kPeers, 10000},
    {"heap blocks per message received in a datagram", "", "rounds/10000", "", "blocks_data", atMost(0)},
    {"heap blocks per ACK", "", "rounds/10000", "", "blocks_ack", atMost(0)},
    {"heap blocks per message sent", "", "rounds/10000", "", "blocks_send", atMost(2)},
};

}  // namespace
