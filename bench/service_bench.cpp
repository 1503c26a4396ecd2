// The reference service beside a bare program that reads the same requests with epoll and answers each with
// as many bytes; and its round trip while it holds as many boosts as it may.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "base/bytes.h"
#include "service/server/Server.h"
#include "shared/AbstractSocket.h"
#include "support/Rows.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBytes = 32;  // of a request without a body, and of its reply

std::string nameOf(const char* what) {
  static int count = 0;
  return "tarn-bench-" + std::to_string(getpid()) + what + std::to_string(count++);
}

/// Something that boosts change, which changes nothing.
class Nothing : public service::Setting {
 public:
  explicit Nothing(int number) : m_number(number) {}
  std::string key() const override { return "nothing " + std::to_string(m_number); }
  service::Outcome prepare(int) override { return {}; }
  service::Outcome apply(int) override { return {}; }
  service::Outcome restore() override { return {}; }
  nlohmann::json record() const override { return {}; }

 private:
  const int m_number;
};

/// The service on a thread of its own; it says nothing.
class Service {
 public:
  explicit Service(int held) {
    for (int i = 0; i < held; ++i) {
      m_dispatcher.boosts().add({uint64_t{1} << 32, 1, 1004, service::Part::THREAD, i, 1, service::kNoExpiry},
                                std::make_unique<Nothing>(i));
    }
    std::string problem;
    m_server.start(problem);
    m_thread = std::thread([this] { m_server.run(); });
  }
  ~Service() {
    m_server.stop();
    m_thread.join();
  }
  const std::string& name() const { return m_name; }

 private:
  static service::ServerOptions options(const std::string& name) {
    service::ServerOptions options;
    options.name = name;
    return options;
  }
  const std::string m_name = nameOf("service");
  const service::Log m_log{service::Priority::WARNING, [](service::Priority, const std::string&) {}};
  service::Dispatcher m_dispatcher{{}, m_log, {SIZE_MAX, SIZE_MAX, SIZE_MAX}};
  service::Server m_server{options(m_name), m_dispatcher, m_log};
  std::thread m_thread;
};

/// The floor: what arrives goes back. Or, to tell what a nanosecond is worth, after so many for each request.
template <int kNanoseconds>
class EchoAfter {
 public:
  explicit EchoAfter(int /*held*/) {
    std::string problem;
    m_listener = shared::listenOn(m_name, problem);
    watch(m_listener.get());
    watch(m_stop.get());
    m_thread = std::thread([this] { run(); });
  }
  ~EchoAfter() {
    eventfd_write(m_stop.get(), 1);
    m_thread.join();
  }
  const std::string& name() const { return m_name; }

 private:
  void watch(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event);
  }
  void run() {
    std::vector<shared::UniqueFd> clients;
    std::vector<char> bytes(64 * 1024);
    while (true) {
      epoll_event events[64];
      const int count = epoll_wait(m_epoll.get(), events, 64, -1);
      for (int i = 0; i < count; ++i) {
        const int fd = events[i].data.fd;
        if (fd == m_stop.get()) return;
        if (fd == m_listener.get()) {
          clients.emplace_back(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
          watch(clients.back().get());
          continue;
        }
        const ssize_t got = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if constexpr (kNanoseconds > 0) {
          const auto until = Clock::now() + std::chrono::nanoseconds(kNanoseconds * got / ssize_t{kBytes});
          while (Clock::now() < until) continue;
        }
        if (got > 0) send(fd, bytes.data(), static_cast<size_t>(got), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (got == 0) epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, fd, nullptr);
      }
    }
  }

  const std::string m_name = nameOf("echo");
  const shared::UniqueFd m_epoll{epoll_create1(EPOLL_CLOEXEC)};
  const shared::UniqueFd m_stop{eventfd(0, EFD_CLOEXEC)};
  shared::UniqueFd m_listener;
  std::thread m_thread;
};
using Echo = EchoAfter<0>;

std::string requests(int count) {
  uint8_t header[kBytes] = {'R', 'C', 'D', 'H', 4, 0};
  write16le(header + 6, 1003);  // takes back what it holds: nothing
  std::string bytes;
  for (int i = 0; i < count; ++i) bytes.append(reinterpret_cast<const char*>(header), kBytes);
  return bytes;
}

void readAll(int fd, size_t count) {
  char bytes[4096];
  while (count > 0) {
    const ssize_t got = recv(fd, bytes, std::min(sizeof(bytes), count), 0);
    if (got <= 0) abort();
    count -= static_cast<size_t>(got);
  }
}

/// Each of so many clients makes a request, or a burst of them, then reads the replies.
template <class Server>
void throughput(benchmark::State& state) {
  Server server(0);
  std::vector<shared::UniqueFd> clients;
  for (int i = 0; i < state.range(0); ++i) {
    clients.push_back(shared::connectTo(server.name()));
    const int flags = fcntl(clients.back().get(), F_GETFL);
    fcntl(clients.back().get(), F_SETFL, flags & ~O_NONBLOCK);
  }
  const auto perClient = static_cast<int>(state.range(1));
  const std::string burst = requests(perClient);
  for (auto iteration : state) {
    for (const auto& client : clients) send(client.get(), burst.data(), burst.size(), MSG_NOSIGNAL);
    for (const auto& client : clients) readAll(client.get(), burst.size());
  }
  state.counters["per_s"] = benchmark::Counter(
      static_cast<double>(state.iterations() * state.range(0) * perClient), benchmark::Counter::kIsRate);
}

void roundTrip(benchmark::State& state) {
  Service service(static_cast<int>(state.range(0)));
  const shared::UniqueFd client = shared::connectTo(service.name());
  fcntl(client.get(), F_SETFL, fcntl(client.get(), F_GETFL) & ~O_NONBLOCK);
  const std::string one = requests(1);
  for (auto iteration : state) {
    send(client.get(), one.data(), one.size(), MSG_NOSIGNAL);
    readAll(client.get(), one.size());
  }
}

void clients(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgPair(1, 1)->ArgPair(64, 1)->ArgPair(1, 16)->ArgPair(64, 16)->Iterations(1000)->UseRealTime();
}
BENCHMARK(throughput<Service>)->Name("service")->Apply(clients);
BENCHMARK(throughput<Echo>)->Name("echo")->Apply(clients);
BENCHMARK(throughput<EchoAfter<50>>)->Name("echo_after_50_ns")->Apply(clients);
BENCHMARK(roundTrip)->Arg(0)->Iterations(20000)->UseRealTime();
BENCHMARK(roundTrip)->Arg(16384)->Iterations(20000)->UseRealTime();

const Row kRows[] = {
    {"service: requests per second, 1 client", "1/s", "service/1/1", "echo/1/1", "per_s", atLeast(0.7)},
    {"service: requests per second, 64 clients", "1/s", "service/64/1", "echo/64/1", "per_s", atLeast(0.7)},
    {"the same, 1 client that sends 16 at once", "1/s", "service/1/16", "echo/1/16", "per_s", atLeast(0.7)},
    {"the same, 64 clients that send 16 at once", "1/s", "service/64/16", "echo/64/16", "per_s",
     atLeast(0.7)},
    {"the floor when it spends 50 ns on a request, 1 client, 16 at once", "1/s", "echo_after_50_ns/1/16",
     "echo/1/16", "per_s"},
    {"the floor when it spends 50 ns on a request, 64 clients, 16 at once", "1/s", "echo_after_50_ns/64/16",
     "echo/64/16", "per_s"},
    {"service: round trip with 16,384 boosts held", "us", "roundTrip/16384", "roundTrip/0", "time",
     atMost(1.2)},
};

}  // namespace
