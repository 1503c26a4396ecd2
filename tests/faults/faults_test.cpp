// Every call that can fail, failing once at each place that a life of the library reaches: the life ends,
// leaves nothing behind and says so in as many lines as are due, and the next one is as good as any.
#include <netinet/in.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "bridge/C2Java.h"
#include "cpuload/cpuLoad.h"
#include "faults/Faults.h"
#include "local/LocalsocketClient.h"
#include "support/LogCapture.h"
#include "support/Support.h"
#include "support/Udp.h"
#include "udp/UdpClient.h"

namespace {

/// What must not grow: descriptors and threads.
std::pair<size_t, size_t> held() {
  const auto count = [](const char* folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
  };
  return {count("/proc/self/fd"), count("/proc/self/task")};
}

/// Waits until the condition holds; not for long once the fault has happened, as it may have cost just that.
template <class Condition>
bool unlessLost(Condition condition) {
  for (int ms = 0, afterMs = 0; ms < 20000 && afterMs < 150 && !condition(); ++ms) {
    usleep(1000);
    afterMs += Fault::happened() ? 1 : 0;
  }
  return condition();
}

/// The real filter and the real queue, with a count of what came.
struct Owner : ClientProtocal, IC2JavaCallback {
  std::shared_ptr<IClientEngine> engine() override { return nullptr; }
  IC2JavaCallback* c2JavaCallback() override { return this; }
  int32_t pushCallback(int32_t type, int64_t timestamp, int32_t status, int32_t funcid, int32_t code,
                       const uint8_t* data, int32_t len) override {
    ++m_got;
    return m_queue.pushCallback(type, timestamp, status, funcid, code, data, len);
  }
  std::atomic<int> m_got{0};
  Callback m_queue;
};

/// A service that answers every request of one connection with a status and a push.
class Service : public FakeService {
 public:
  Service() : FakeService(uniqueName()) {
    m_thread = std::thread([this] {
      if (!accept()) return;
      const Bytes push = hex("0807 12 8827") + Bytes(kPushedBytes, 'x');
      while (readRequest().size() >= 32 && write(reply(1003, 5) + reply(1010, 0, push))) {
      }
    });
  }
  ~Service() {
    const auto [address, length] = abstractAddress(name());
    const int last = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);  // in case that nobody has connected
    connect(last, reinterpret_cast<const sockaddr*>(&address), length);
    close(last);
    m_thread.join();
  }

 private:
  std::thread m_thread;
};

// ---- the lives; true when everything worked ----

bool localLife() {
  Service service;
  Owner owner;
  auto engine = std::make_shared<LocalsocketClient>(service.name(), "here", &owner);
  const std::weak_ptr<LocalsocketClient> watch = engine;
  const auto request = [&] {
    const Inside inside;
    return engine->sendReq(1003, nullptr, 0, 1, 1) > 0;
  };
  const auto start = [&] {
    const Inside inside;
    return LocalsocketClient::start(engine) == 0;
  };
  bool good = start();
  good = good && request() && unlessLost([&] { return owner.m_got == 2; });
  good = good && request() && unlessLost([&] { return owner.m_got == 4; });
  engine->uninit();
  engine.reset();
  EXPECT_TRUE(eventually([&] { return watch.expired(); })) << "the engine's thread ends";
  return good;
}

bool serverLife() {
  struct Server : LocalSocket {
    int32_t recvEvent(int32_t event, int32_t, uint32_t, const char*, const uint8_t*, int32_t) override {
      m_events[event] = true;
      return 0;
    }
    std::atomic<bool> m_events[4]{};
  } server;
  const std::string name = uniqueName();
  const auto open = [&] {
    const Inside inside;
    return server.createSocket(name.c_str(), "") == 0;
  };
  if (!open()) return false;
  std::thread loop([&] {
    const Inside inside;
    server.loop(true);
  });
  const auto [address, length] = abstractAddress(name);
  const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool good = connect(client, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
              send(client, "ping", 4, MSG_NOSIGNAL) == 4 &&
              unlessLost([&] { return server.m_events[EVENT_DATA].load(); });
  close(client);
  good = good && unlessLost([&] { return server.m_events[EVENT_ERROR].load(); });
  server.uninit();
  loop.join();
  return good;
}

bool udpLife() {
  Endpoint peer;
  Owner owner;
  UdpClient engine(&owner, UdpTiming{nowMs, 25});
  const auto start = [&] {
    const Inside inside;
    return engine.connectTo("127.0.0.1", ntohs(peer.localAddress().sin_port)) == 0 && engine.start() == 0 &&
           engine.sendReq(1003, nullptr, 0, 1, 1) > 0;
  };
  if (!start()) return false;
  bool good = unlessLost([&] { return !peer.events(UDP_EVENT_DATA).empty(); });
  peer.queue(loopback(ntohs(engine.localAddress().sin_port)), 1, reply(1003, 5));
  return unlessLost([&] { return owner.m_got == 1; }) && good;
}

bool traceLife() {
  const Inside inside;
  const int32_t handle = startTraceCpuLoad(gettid(), 1);
  usleep(3000);
  return stopTraceCpuLoad(handle) != -1 && handle != 0;
}

TEST(Faults, OfEveryCallAtEveryPlaceCostOneLifeAtMost) {
  if (getenv("TARN_EMULATED") != nullptr) GTEST_SKIP() << "the emulator's own descriptors come and go";
  constexpr int kAtMostOne = -1;  // none when there was a datagram before it in the same round
  constexpr int kMost = 30;       // the loops' calls have no end but that of the life
  const struct {
    bool (*life)();
    const char* call;
    int error;
    int lines;  // of ERROR that the failure is due; the kernel's texts and a lost datagram are due none
  } rows[] = {
      {localLife, "pipe2", EMFILE, 1},
      {localLife, "socket", EMFILE, 1},
      {localLife, "connect", ECONNREFUSED, 1},
      {localLife, "fcntl", EINVAL, 1},
      {localLife, "pthread_create", EAGAIN, 1},
      {localLife, "select", ENOMEM, 0},
      {localLife, "send", EPIPE, 2},
      {localLife, "recvfrom", ECONNRESET, 2},
      {localLife, "mmap", ENOMEM, 1},
      {localLife, "new", ENOMEM, 1},
      {localLife, "copy", ENOMEM, 1},
      {serverLife, "bind", EADDRINUSE, 1},
      {serverLife, "listen", EADDRINUSE, 1},
      {serverLife, "accept4", EMFILE, 1},
      {serverLife, "fcntl", EINVAL, 2},
      {serverLife, "recvfrom", ECONNRESET, 1},
      {udpLife, "pipe2", EMFILE, 1},
      {udpLife, "socket", EMFILE, 1},
      {udpLife, "bind", EADDRINUSE, 1},
      {udpLife, "pthread_create", EAGAIN, 1},
      {udpLife, "select", ENOMEM, 0},
      {udpLife, "sendto", ENETUNREACH, 0},
      {udpLife, "recvfrom", ECONNREFUSED, kAtMostOne},
      {traceLife, "open", EMFILE, 0},
      {traceLife, "pread", EIO, 0},
      {traceLife, "pthread_create", EAGAIN, 0},
  };
  for (const auto life : {localLife, serverLife, udpLife, traceLife}) EXPECT_TRUE(life());
  for (const auto& row : rows) {
    int n = 1;
    for (; n <= kMost; ++n) {
      SCOPED_TRACE(std::string(row.call) + " number " + std::to_string(n) + " of row " +
                   std::to_string(&row - rows));
      const auto before = held();
      const LogCapture log;
      bool reached = false;
      {
        const Fault fault(row.call, row.error, n);
        row.life();
        reached = Fault::happened();
      }
      EXPECT_TRUE(eventually([&] { return held() == before; })) << "nothing is left behind";
      if (!reached) break;
      const int lines = log.count("6 [");
      EXPECT_TRUE(row.lines == kAtMostOne ? lines <= 1 : lines == row.lines)
          << testing::PrintToString(log.linesWith("6 ["));
      EXPECT_TRUE(row.life()) << "the fault is gone";
    }
    EXPECT_GT(n, 1) << row.call << " was never called";
  }
}

}  // namespace
