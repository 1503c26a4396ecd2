// The client: when it starts engines, what requests put on the wire, and how it lives through the service's
// deaths.
#include "client.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <vector>

#include "C2Java.h"
#include "bytes.h"
#include "log.h"
#include "protocol.h"
#include "support/LogCapture.h"
#include "support/Support.h"

// Every creation of a thread passes here (see CMakeLists.txt); an error fails it.
std::atomic<int> g_threadError{0};
extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*entry)(void*),
                                     void* with) {
  return g_threadError != 0 ? g_threadError.load() : __real_pthread_create(thread, how, entry, with);
}

namespace {

/// A client of the test's own. Engines' threads may outlive the test and look at it, so it is never freed.
Client& newClient() {
  static auto& kept = *new std::vector<std::unique_ptr<Client>>;
  kept.push_back(std::make_unique<Client>());
  return *kept.back();
}

/// A queue of the test's own; kept like the clients that push into it.
Callback* newQueue() {
  static auto& kept = *new std::vector<std::unique_ptr<Callback>>;
  kept.push_back(std::make_unique<Callback>());
  return kept.back().get();
}

TEST(Client, StartsOnlyAConfiguredEngineAndOnlyOnePerInterval) {
  Callback* const queue = newQueue();
  FakeService service(uniqueName());
  const LogCapture log;
  const struct {
    const char *name, *remote;
    int port;
    const char* local;
    std::vector<int> results;  // of further tryStartEngine() calls
    bool runs;
  } cases[] = {
      {"empty remote", "", 0, "l", {-1, -1}, false},
      {"port below 1 and no local name", service.name().c_str(), -1, "", {-1}, false},
      {"nobody listens", "tarn-nobody-listens", 0, "l", {-3, -3}, false},
      {"running", service.name().c_str(), 0, "l", {-2, -2}, true},
      {"UDP: built and discarded", "127.0.0.1", 9, "", {-3, -3}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Client& client = newClient();
    EXPECT_EQ(client.engine(), nullptr) << "nothing is configured, and there is no sink yet";
    client.init(c.remote, c.port, c.local, queue);
    EXPECT_EQ(client.isRunning(), c.runs);
    for (const int result : c.results) EXPECT_EQ(client.tryStartEngine(), result);
    EXPECT_EQ(client.engine() != nullptr, c.runs);
  }
  EXPECT_EQ(log.count("5 [udp.cpp,createSocket:"), 1) << "one UDP engine, the later attempts are throttled";
}

TEST(Client, DisablingHidesARunningEngineAndEnablingFindsItAgain) {
  g_debug = true;
  FakeService service(uniqueName());
  Client& client = newClient();
  EXPECT_TRUE(client.init("", 0, "", newQueue())) << "replaced by the next one, as no engine is held";
  EXPECT_TRUE(client.init(service.name(), 0, "here", newQueue()));
  const LogCapture inited;
  EXPECT_FALSE(client.init("elsewhere", 9, "there", newQueue()));
  EXPECT_EQ(
      inited.count("\"ClientInit client already inited remote:" + service.name() + " port:0 local:here cb:"),
      1);
  const struct {
    bool on, engine;
    const char* line;
  } steps[] = {
      {true, true, "3 [client.cpp,setEnable:366]\"setEnable 1 to 1 restart:0\""},
      {false, false, "3 [client.cpp,setEnable:366]\"setEnable 0 to 0 restart:0\""},
      {true, true, "3 [client.cpp,setEnable:366]\"setEnable 1 to 1 restart:1\""},
  };
  for (const auto& step : steps) {
    const LogCapture log;
    client.setEnable(step.on);
    EXPECT_EQ(log.count(step.line), 1) << step.line;
    EXPECT_EQ(client.engine() != nullptr, step.engine);
    EXPECT_TRUE(client.isRunning());
  }
  g_debug = false;
}

TEST(Client, ReportsEveryRequestThatFindsNoEngineAndThrottlesTheAttempts) {
  g_debug = true;
  Callback* const queue = newQueue();
  Client& client = newClient();
  client.setRetryConnectInterval(0);
  client.setRetryConnectInterval(-5);
  client.init("tarn-nobody-listens", 0, "l", queue);
  const LogCapture log;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(client.engine(), nullptr);
  g_debug = false;
  EXPECT_EQ(log.count("3 [client.cpp,engine:277]\"ClientEngine not  running, try Reconnect\""), 3);
  EXPECT_EQ(log.count("3 [client.cpp,tryStartEngine:312]\"tryStartEngine TimeDiff:"), 3);
  EXPECT_EQ(log.count("\"connect ret:"), 0) << "the attempt of init() has used the 30 seconds up";
  for (int i = 0; i < 3; ++i) {
    const auto report = queue->take();
    EXPECT_EQ(report->type, 1);
    EXPECT_EQ(report->status, -20001);
    EXPECT_EQ(report->timestamp + report->funcid + report->code + report->len, 0);
  }
}

TEST(Client, AnEngineWhoseThreadCannotBeCreatedFailsTheStart) {
  FakeService service(uniqueName());
  Client& client = newClient();
  g_threadError = EAGAIN;
  client.init(service.name(), 0, "l", newQueue());
  g_threadError = 0;
  EXPECT_FALSE(client.isRunning());
  EXPECT_TRUE(service.accept());
  EXPECT_EQ(service.read(1), "") << "the connection is closed again";
}

TEST(Client, RestartsAfterTheServiceCameBackAndTheIntervalHasPassed) {
  Callback* const queue = newQueue();
  const std::string name = uniqueName();
  auto service = std::make_unique<FakeService>(name);
  Client& client = newClient();
  client.setRetryConnectInterval(1);
  client.init(name, 0, "l", queue);
  ASSERT_TRUE(service->accept());
  const auto first = client.engine();
  ASSERT_NE(first, nullptr);
  service.reset();
  // A request into the dead connection is accepted, ends the engine, and the next request restarts it.
  ASSERT_TRUE(eventually([&] { return first->sendReq(1003, nullptr, 0, 1, 1) > 0 && !first->isRunning(); }));
  EXPECT_GT(first->sendReq(1003, nullptr, 0, 1, 1), 0) << "an ended engine neither blocks nor fails";
  service = std::make_unique<FakeService>(name);
  ASSERT_TRUE(eventually([&] { return client.engine() != nullptr; }));
  EXPECT_NE(client.engine(), first);
  ASSERT_TRUE(service->accept());
  ASSERT_GT(client.engine()->sendReq(1003, nullptr, 0, 1, 1), 0);
  EXPECT_EQ(service->readRequest().substr(0, 8), hex("52434448 0400 EB03"));
}

TEST(Client, AThreadStuckInAFullQueueComesBackWhenTheServiceDies) {
  Callback* const queue = newQueue();
  FakeService service(uniqueName());
  Client& client = newClient();
  client.init(service.name(), 0, "l", queue);
  ASSERT_TRUE(service.accept());
  const auto engine = client.engine();
  const std::vector<uint8_t> big(1 << 20);
  std::atomic<int> sent{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 12; ++i) {
    threads.emplace_back([&] {
      EXPECT_GT(engine->sendReq(1011, big.data(), big.size(), 1, 1), 0);
      ++sent;
    });
  }
  ASSERT_TRUE(eventually([&] { return sent == 5; })) << "the one being written keeps its place";
  service.stop();
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(eventually([&] { return !engine->isRunning(); }));
}

TEST(Client, SurvivesEightThreadsOfRequestsAgainstADyingService) {
  signal(SIGPIPE, SIG_DFL);  // a SIGPIPE that gets through ends the test
  Callback* const queue = newQueue();
  const std::string name = uniqueName();
  Client& client = newClient();
  client.setRetryConnectInterval(1);
  std::atomic<bool> done{false};
  std::atomic<int> answered{0};
  std::thread drain([&] {
    for (int status = 0; status != 1; answered += status == 7 ? 1 : 0) status = queue->take()->status;
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      const Bytes payload(static_cast<size_t>(t) * 1000, 'x');
      for (int i = 0; !done; ++i) {
        if (t == 7) client.setEnable(i % 64 != 0);
        client.isRunning();
        client.init(name, 0, "l", queue);
        if (const auto engine = client.engine()) {
          EXPECT_GT(
              engine->sendReq(1011, reinterpret_cast<const uint8_t*>(payload.data()), payload.size(), t, i),
              0);
        } else {
          std::this_thread::yield();
        }
      }
    });
  }
  int lives = 0;
  for (int round = 0; round < 4; ++round) {
    FakeService service(name);
    if (!service.accept()) continue;
    ++lives;
    for (int i = 0; i < 200; ++i) {
      const Bytes request = service.readRequest();
      if (request.size() < 32) break;
      EXPECT_EQ(request.substr(0, 8), hex("52434448 0400 F303"));
      EXPECT_EQ(request.substr(32), Bytes(static_cast<uint8_t>(request[20]) * 1000, 'x')) << "of its caller";
      service.write(reply(1011, 7, i % 2 == 0 ? "" : "a body"));
    }
  }
  done = true;
  for (auto& thread : threads) thread.join();
  queue->pushCallback(1, 0, 1, 0, 0, nullptr, 0);
  drain.join();
  EXPECT_EQ(lives, 4);
  EXPECT_GT(answered, 0);
}

// ---- Requests, through the process-wide client ----

class Requests : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    g_client.init(service().name(), 0, "l", &g_callback);
    ASSERT_TRUE(service().accept());
  }
  static FakeService& service() {
    static auto& instance = *new FakeService(uniqueName());
    return instance;
  }
};

const int kTids[] = {101, 102};

TEST_F(Requests, PutTheirFuncidTheirCallerAndTheirGoldenBodyOnTheWire) {
  const std::string self = "local pid: " + std::to_string(getpid()) + ", uid:" + std::to_string(getuid());
  constexpr int64_t kStamp = 7000000000;  // shown as 7000
  const struct {
    int funcid;
    std::function<int()> call;
    const char* body;
    const char* function;
    std::string line;  // R stands for the result
  } cases[] = {
      {1001, [] { return checkPermission(10, 20, 30, kStamp); }, "", "checkPermission",
       "checkPermission ret:R pid:10 uid:20 " + self + " tid:30 timestamp:7000"},
      {1002, [] { return requestCpuHighFreq(3, 5, 2, 1000, 30, kStamp); }, "0803 1002 18E807 2005",
       "requestCpuHighFreq",
       "requestCpuHighFreq ret:R scene:3 action:5 level:2 timeoutms:1000 tid:30 timestamp:7000"},
      {1002, [] { return requestCpuHighFreq(-1, 1LL << 32 | 9, -2, 0, 30, kStamp); },
       "08FFFFFFFFFFFFFFFFFF01 10FEFFFFFFFFFFFFFFFF01 1800 208980808010", "requestCpuHighFreq",
       "requestCpuHighFreq ret:R scene:-1 action:9 level:-2 timeoutms:0 tid:30 timestamp:7000"},
      {1003, [] { return cancelCpuHighFreq(30, kStamp); }, "", "cancelCpuHighFreq",
       "cancelCpuHighFreq ret:R tid:30 timestamp:7000"},
      {1004, [] { return requestCpuCoreForThread(1, 4, kTids, 2, 50, 30, kStamp); },
       "0801 1065 1066 1832 2004", "requestCpuCoreForThread", "requestCpuCoreForThread ret:R :1 4 2 50  "},
      {1004, [] { return requestCpuCoreForThread(1, 4, nullptr, 0, 50, 30, kStamp); }, "0801 1832 2004",
       "requestCpuCoreForThread", "requestCpuCoreForThread ret:R :1 4 0 50  "},
      {1005, [] { return cancelCpuCoreForThread(kTids, 2, 30, kStamp); }, "0865 0866",
       "cancelCpuCoreForThread", "cancelCpuCoreForThread :2 end ret:R"},
      {1006, [] { return requestHighIOFreq(3, 5, 2, 1000, 30, kStamp); }, "0803 1002 18E807 2005",
       "requestHighIOFreq", "requestCpuCoreForThread :3 5 2 1000 end ret:R"},
      {1007, [] { return cancelHighIOFreq(30, kStamp); }, "", "cancelHighIOFreq", "cancelHighIOFreq ret:R "},
      {1008, [] { return requestScreenResolution(2, "ui", 30, kStamp); }, "0802 12027569",
       "requestScreenResolution", "requestScreenResolution level: 2 uiName:ui end ret:R"},
      {1008, [] { return requestScreenResolution(0, "", 30, kStamp); }, "0800 1200",
       "requestScreenResolution", "requestScreenResolution level: 0 uiName: end ret:R"},
      {1009, [] { return resetScreenResolution(30, kStamp); }, "", "resetScreenResolution",
       "resetScreenResolution end ret:R "},
      {1010, [] { return registerANRCallback(30, kStamp); }, "", "registerANRCallback",
       "registerANRCallback end ret:R "},
      {1011,
       [] {
         return registerBootPreloadResource({"/a", ""}, 30, kStamp);
       },
       "0A022F61 0A00", "registerBootPreloadResource", "registerBootPreloadResource files size:2 end ret:R"},
      {1011, [] { return registerBootPreloadResource({}, 30, kStamp); }, "", "registerBootPreloadResource",
       "registerBootPreloadResource files size:0 end ret:R"},
      {1012, [] { return terminateApp(30, kStamp); }, "", "terminateApp", "terminateApp ret:R "},
      {1013, [] { return requestUnifyCpuIOThreadCore(1, 6, 2, 3, kTids, 2, 5, 30, kStamp); },
       "0801 1002 1803 2065 2066 2805 3006", "requestUnifyCpuIOThreadCore",
       "requestUnifyCpuIOThreadCore :1 6 2 3 2 5 end ret:R"},
      {1014, [] { return cancelUnifyCpuIOThreadCore(true, false, true, kTids, 1, 30, kStamp); },
       "0801 1000 1801 2065", "cancelUnifyCpuIOThreadCore", "cancelUnifyCpuIOThreadCore :1 0 1 1 end ret:R"},
      {1014, [] { return cancelUnifyCpuIOThreadCore(false, false, false, nullptr, 0, 30, kStamp); },
       "0800 1000 1800", "cancelUnifyCpuIOThreadCore", "cancelUnifyCpuIOThreadCore :0 0 0 0 end ret:R"},
  };
  g_debug = true;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const LogCapture log;
    const int result = c.call();
    const Bytes packet = service().readRequest();
    ASSERT_GE(packet.size(), 32u);
    const auto* const header = reinterpret_cast<const uint8_t*>(packet.data());
    EXPECT_EQ(read16le(header + 6), c.funcid);
    EXPECT_EQ(read32le(header + 12), static_cast<uint32_t>(result)) << "the low word of the send time";
    EXPECT_EQ(read32le(header + 20), 30u);
    EXPECT_EQ(read64le(header + 24), static_cast<uint64_t>(kStamp));
    EXPECT_EQ(packet.substr(32), hex(c.body));
    const auto lines = log.linesWith("3 [protocol.cpp," + std::string(c.function) + ":");
    ASSERT_EQ(lines.size(), 1u);
    std::string line = c.line;
    line.replace(line.find("ret:R") + 4, 1, std::to_string(result));
    EXPECT_EQ(lines[0].substr(lines[0].find("]\"")), "]\"" + line + "\"");
  }
  g_debug = false;
}

TEST_F(Requests, AMessageLargerThanAThreadsStackIsCarriedWhole) {
  const std::vector<std::string> files(100000, std::string(100, 'f'));  // 10 MB; a stack has 8
  std::thread caller([&] { EXPECT_NE(registerBootPreloadResource(files, 30, 40), kNoEngine); });
  const Bytes packet = service().readRequest();
  caller.join();
  EXPECT_EQ(packet.size(), 32u + 100000 * 102);
  EXPECT_EQ(packet.substr(packet.size() - 102), hex("0A64") + files.back());
}

TEST_F(Requests, WithoutThreadsOrWithoutAnEngineSendNothing) {
  const LogCapture log;
  EXPECT_EQ(cancelCpuCoreForThread(nullptr, 0, 30, 40), kNoThreads);
  EXPECT_EQ(log.count("\"cancelCpuCoreForThread bindlen :0\""), 1);
  g_client.setEnable(false);
  EXPECT_EQ(cancelCpuCoreForThread(nullptr, 0, 30, 40), kNoEngine);
  EXPECT_EQ(terminateApp(30, 40), kNoEngine);
  EXPECT_EQ(log.count("bindlen"), 1);
  g_client.setEnable(true);
  EXPECT_NE(resetScreenResolution(30, 40), kNoEngine);
  EXPECT_EQ(read16le(reinterpret_cast<const uint8_t*>(service().readRequest().data()) + 6), 1009)
      << "nothing was sent before it";
}

}  // namespace
