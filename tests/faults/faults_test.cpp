// Every call that can fail, failing once at each place that a life of the library reaches: the life ends,
// leaves nothing behind and says so in as many lines as are due, and the next one is as good as any.
#include <netinet/in.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <sstream>

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
struct Service : FakeService {
  Service() : FakeService(uniqueName()) {}
  ~Service() { shutdown(listener(), SHUT_RDWR); }  // in case that nobody has connected
  const std::future<void> m_answering = std::async(std::launch::async, [this] {
    if (!accept()) return;
    const Bytes push = hex("0807 12 8827") + Bytes(kPushedBytes, 'x');
    while (readRequest().size() >= 32 && write(reply(1003, 5) + reply(1010, 0, push))) {
    }
  });
};

template <class Call>
auto inside(Call call) {
  const Inside scope;
  return call();
}

// ---- the lives; true when everything worked ----

bool localLife() {
  Service service;
  Owner owner;
  std::atomic<bool> ended{false};
  std::shared_ptr<LocalsocketClient> engine(new LocalsocketClient(service.name(), "here", &owner),
                                            [&](const LocalsocketClient* last) {
                                              delete last;
                                              ended = true;
                                            });
  const auto request = [&] { return inside([&] { return engine->sendReq(1003, nullptr, 0, 1, 1) > 0; }); };
  bool good = inside([&] { return LocalsocketClient::start(engine) == 0; });
  good = good && request() && unlessLost([&] { return owner.m_got == 2; });
  good = good && request() && unlessLost([&] { return owner.m_got == 4; });
  engine->uninit();
  engine.reset();
  EXPECT_TRUE(eventually([&] { return ended.load(); })) << "the engine's thread ends";
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
  if (inside([&] { return server.createSocket(name.c_str(), "") != 0; })) return false;
  std::thread loop([&] { inside([&] { return server.loop(true); }); });
  const int client = plainClient(name);
  bool good = send(client, "ping", 4, MSG_NOSIGNAL) == 4 &&
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
  if (!inside([&] {
        return engine.connectTo("127.0.0.1", ntohs(peer.localAddress().sin_port)) == 0 &&
               engine.start() == 0 && engine.sendReq(1003, nullptr, 0, 1, 1) > 0;
      }))
    return false;
  bool good = unlessLost([&] { return !peer.events(UDP_EVENT_DATA).empty(); });
  peer.queue(loopback(ntohs(engine.localAddress().sin_port)), 1, reply(1003, 5));
  return unlessLost([&] { return owner.m_got == 1; }) && good;
}

bool traceLife() {
  const Inside inside;
  const int32_t handle = startTraceCpuLoad(gettid(), 1);
  usleep(3000);
  stopTraceCpuLoad(handle);  // whose sum may well be -1: a tick at an unreadable frequency
  return handle != 0;
}

/// More reports than the queue has room for at first.
bool reportLife() {
  const Inside inside;
  Callback queue;
  for (int i = 0; i < 66; ++i) queue.pushCallback(REPORT_DATA, 0, 0, 0, 0, nullptr, 0);
  for (int i = 0; i < 2; ++i) queue.pushCallback(REPORT_STATUS, 0, 0, 0, 0, nullptr, 0);  // one stays
  int got = 0;
  while (queue.take().type == REPORT_DATA) ++got;
  return got == 66;
}

TEST(Faults, OfEveryCallAtEveryPlaceCostOneLifeAtMost) {
  if (getenv("TARN_EMULATED") != nullptr)
    GTEST_SKIP() << "NOT TESTED: the emulator's own descriptors come and go";
  constexpr int kAtMostOne = -1;  // none when there was a datagram before it in the same round
  constexpr int kMost = 30;       // the loops' calls have no end but that of the life
  const struct {
    bool (*life)();
    int lines;  // of ERROR that the failure is due; the kernel's texts and a lost datagram are due none
    const char* calls;
  } rows[] = {
      {localLife, 0, "select"},
      {localLife, 1, "pipe2 socket connect fcntl pthread_create mmap new copy"},
      {localLife, 2, "send recvfrom"},
      {reportLife, 1, "new"},
      {serverLife, 1, "bind listen accept4 recvfrom"},
      {serverLife, 2, "fcntl"},
      {udpLife, 0, "select sendto"},
      {udpLife, 1, "pipe2 socket bind pthread_create"},
      {udpLife, kAtMostOne, "recvfrom"},
      {traceLife, 0, "open pread pthread_create"},
  };
  for (const auto life : {localLife, reportLife, serverLife, udpLife, traceLife}) EXPECT_TRUE(life());
  auto least = held();
  // A detached thread is listed until it has wholly left: what is held settles at the least ever seen.
  const auto settled = [&least] {
    const auto now = held();
    least = std::min(least, now);
    return now == least;
  };
  for (const auto& row : rows) {
    std::istringstream calls(row.calls);
    for (std::string call; calls >> call;) {
      int n = 1;
      for (; n <= kMost; ++n) {
        SCOPED_TRACE(call + " number " + std::to_string(n) + " of row " + std::to_string(&row - rows));
        const LogCapture log;
        bool reached = false;
        {
          const Fault fault(call, n);
          row.life();
          reached = Fault::happened();
        }
        EXPECT_TRUE(eventually(settled)) << "nothing is left behind";
        if (!reached) break;
        const int lines = log.count("6 [") - log.count("genReqPack failed");  // which always comes second
        EXPECT_TRUE(row.lines == kAtMostOne ? lines <= 1 : lines == row.lines)
            << testing::PrintToString(log.linesWith("6 ["));
        EXPECT_TRUE(row.life()) << "the fault is gone";
      }
      EXPECT_GT(n, 1) << call << " was never called";
    }
  }
}

}  // namespace
