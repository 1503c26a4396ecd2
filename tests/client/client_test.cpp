// The client: when it starts engines, what requests put on the wire, and how it lives through the service's
// deaths.
#include "client/client.h"
#include "client/protocol.h"

#include <unistd.h>

#include <csignal>
#include <functional>

#include "base/bytes.h"
#include "base/clock.h"
#include "bridge/C2Java.h"
#include "support/LogCapture.h"
#include "support/Support.h"
#include "wire/header.h"

namespace {

/// An object of the test's own that is never freed, as engines' threads may outlive the test and look at it.
template <class T>
T& kept() {
  static auto& all = *new std::vector<std::unique_ptr<T>>;
  return *all.emplace_back(std::make_unique<T>());
}

struct ClientTest : testing::Test {
  bool init() { return client.init(service.name(), 0, "here", &queue); }
  FakeService service{uniqueName()};
  Callback& queue = kept<Callback>();
  Client& client = kept<Client>();
};

TEST_F(ClientTest, StartsOnlyAConfiguredEngineAndOnlyOnePerInterval) {
  const LogCapture log;
  const std::string nobody = uniqueName();
  const struct {
    const char *name, *remote;
    int port;
    const char* local;
    int result;  // of further tryStartEngine() calls
  } cases[] = {
      {"empty remote", "", 0, "l", -1},
      {"port below 1 and no local name", service.name().c_str(), -1, "", -1},
      {"nobody listens", nobody.c_str(), 0, "l", -3},
      {"running", service.name().c_str(), 0, "l", -2},
      {"UDP: built and discarded", "127.0.0.1", 9, "", -3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Client& fresh = kept<Client>();
    EXPECT_EQ(fresh.engine(), nullptr) << "nothing is configured, and there is no sink yet";
    fresh.init(c.remote, c.port, c.local, &queue);
    EXPECT_EQ(fresh.isRunning(), c.result == -2);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(fresh.tryStartEngine(), c.result);
    EXPECT_EQ(fresh.engine() != nullptr, c.result == -2);
  }
  EXPECT_EQ(log.count("5 [udp.cpp,createSocket:"), 1) << "one UDP engine, the later attempts are throttled";
}

TEST_F(ClientTest, DisablingHidesARunningEngineAndEnablingFindsItAgain) {
  EXPECT_TRUE(client.init("", 0, "", &kept<Callback>())) << "replaced by the next one, as no engine is held";
  EXPECT_TRUE(init());
  const LogCapture log(true);
  EXPECT_FALSE(client.init("elsewhere", 9, "there", &queue));
  EXPECT_EQ(
      log.count("\"ClientInit client already inited remote:" + service.name() + " port:0 local:here cb:"), 1);
  for (const auto& [on, line] :
       {std::pair{true, "1 to 1 restart:0\""}, {false, "0 to 0 restart:0\""}, {true, "1 to 1 restart:1\""}}) {
    client.setEnable(on);
    EXPECT_EQ(log.count(std::string("3 [client.cpp,setEnable:366]\"setEnable ") + line), 1) << line;
    EXPECT_EQ(client.engine() != nullptr, on);
    EXPECT_TRUE(client.isRunning());
  }
}

TEST_F(ClientTest, ReportsEveryRequestThatFindsNoEngineAndThrottlesTheAttempts) {
  // Milliseconds beyond 32 bits; the others are refused.
  for (const int seconds : {3000000, 0, -5}) client.setRetryConnectInterval(seconds);
  client.init(uniqueName(), 0, "l", &queue);
  const LogCapture log(true);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(client.engine(), nullptr);
    const auto report = queue.take();
    EXPECT_EQ(report.type, 1);
    EXPECT_EQ(report.status, -20001);
    EXPECT_EQ(report.timestamp + report.funcid + report.code + report.len, 0);
  }
  EXPECT_EQ(log.count("3 [client.cpp,engine:277]\"ClientEngine not  running, try Reconnect\""), 3);
  EXPECT_EQ(log.count("3 [client.cpp,tryStartEngine:312]\"tryStartEngine TimeDiff:"), 3);
  EXPECT_EQ(log.count("\"connect ret:"), 0) << "the attempt of init() has used the interval up";
}

/// A sink that wants the client's lock while it is told something.
struct AskingSink : IC2JavaCallback {
  int32_t pushCallback(int32_t, int64_t, int32_t, int32_t, int32_t, const uint8_t*, int32_t) override {
    std::thread([this] { client->isRunning(), free = true; }).detach();
    EXPECT_TRUE(eventually([&] { return free.load(); })) << "reported with the client's lock held";
    return 0;
  }
  Client* client = nullptr;
  std::atomic<bool> free{false};
};

TEST_F(ClientTest, ReportsWhileItHoldsNoLock) {
  auto& sink = kept<AskingSink>();
  sink.client = &client;
  client.init("", 0, "", &sink);
  EXPECT_EQ(client.engine(), nullptr);
  EXPECT_TRUE(sink.free);
}

TEST_F(ClientTest, AnEngineWhoseThreadCannotBeCreatedFailsTheStart) {
  const LogCapture log;
  g_threadError = EAGAIN;
  init();
  g_threadError = 0;
  EXPECT_EQ(log.count("6 [client.cpp,start:"), 1);
  EXPECT_FALSE(client.isRunning());
  EXPECT_TRUE(service.accept());
  EXPECT_EQ(service.read(1), "") << "the connection is closed again";
}

TEST_F(ClientTest, RestartsAfterTheServiceCameBackAndTheIntervalHasPassed) {
  init();
  ASSERT_TRUE(service.accept());
  EXPECT_NE(stateOf("tarn-engine"), 0);
  const auto first = client.engine();
  ASSERT_NE(first, nullptr);
  service.stop();
  // A request into the dead connection is accepted, ends the engine, and the next request restarts it.
  ASSERT_TRUE(eventually([&] { return first->sendReq(1003, nullptr, 0, 1, 1) > 0 && !first->isRunning(); }));
  EXPECT_GT(first->sendReq(1003, nullptr, 0, 1, 1), 0) << "an ended engine neither blocks nor fails";
  EXPECT_EQ(client.engine(), nullptr) << "throttled";
  EXPECT_FALSE(init()) << "the ended engine is held until it is replaced";
  FakeService again(service.name());
  client.setRetryConnectInterval(1);
  int asked = 1;
  ASSERT_TRUE(eventually([&] { return ++asked, client.engine() != nullptr; }));
  EXPECT_NE(client.engine(), first);
  queue.pushCallback(1, 0, 1, 0, 0, nullptr, 0);
  for (; queue.take().status == -20001; --asked) {
  }
  EXPECT_EQ(asked, 0) << "each of them is reported, the one that succeeds too";
  ASSERT_TRUE(again.accept());
  ASSERT_GT(client.engine()->sendReq(1003, nullptr, 0, 1, 1), 0);
  EXPECT_EQ(again.readRequest().substr(0, 8), hex("52434448 0400 EB03"));
  const auto second = client.engine();
  again.stop();
  ASSERT_TRUE(
      eventually([&] { return second->sendReq(1003, nullptr, 0, 1, 1) > 0 && !second->isRunning(); }));
  FakeService third(service.name());
  ASSERT_TRUE(
      eventually([&] { return client.setEnable(false), client.setEnable(true), client.isRunning(); }));
}

TEST_F(ClientTest, AThreadStuckInAFullQueueComesBackWhenTheServiceDies) {
  init();
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

TEST_F(ClientTest, SurvivesEightThreadsOfRequestsAgainstADyingService) {
  signal(SIGPIPE, SIG_DFL);  // a SIGPIPE that gets through ends the test
  service.stop();
  client.setRetryConnectInterval(1);
  std::atomic<bool> done{false};
  std::atomic<int> answered{0};
  std::thread drain([&] {
    for (int status = 0; status != 1; answered += status == 7 ? 1 : 0) status = queue.take().status;
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      const std::vector<uint8_t> payload(t * 1000, 'x');
      for (int i = 0; !done; ++i) {
        if (t == 7) client.setEnable(i % 64 != 0);
        client.isRunning();
        init();
        const auto engine = client.engine();
        EXPECT_TRUE(engine == nullptr || engine->sendReq(1011, payload.data(), payload.size(), t, i) > 0);
        std::this_thread::yield();
      }
    });
  }
  for (int round = 0; round < 4; ++round) {
    FakeService alive(service.name());
    EXPECT_TRUE(alive.accept());
    for (int i = 0; i < 200; ++i) {
      const Bytes request = alive.readRequest();
      if (request.size() < 32) break;
      EXPECT_EQ(request.substr(0, 8), hex("52434448 0400 F303"));
      EXPECT_EQ(request.substr(32), Bytes(static_cast<uint8_t>(request[20]) * 1000, 'x')) << "of its caller";
      alive.write(reply(1011, 7, i % 2 == 0 ? "" : "a body"));
    }
  }
  done = true;
  for (auto& thread : threads) thread.join();
  queue.pushCallback(1, 0, 1, 0, 0, nullptr, 0);
  drain.join();
  EXPECT_GT(answered, 0);
}

TEST(RequestHeader, PackerRefusesWhatDoesNotFit) {
  const uint8_t body[3] = {};
  const auto refuses = [&](int result, uint32_t funcid, const uint8_t* data, int32_t dataLen,
                           const char* line) {
    const LogCapture log;
    uint8_t* packet = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(genReqPack(funcid, data, dataLen, &packet, &length, 7, 0), result);
    EXPECT_EQ(packet, nullptr);
    EXPECT_EQ(log.count("6 [header.cpp,genReqPack:" + std::string(line)), 1) << line;
  };
  refuses(-2, 65536, body, 3, "31]\"getReqPack funcid should little then 65535 65536 \"");
  refuses(-1, 65536, nullptr, 3, "26]\"getReqPack input data len 3 data:0\"");
  refuses(-1, 1001, body, -1, "26]\"getReqPack input data len -1 data:");
}

/// The service that the process-wide client is connected to.
FakeService& service() {
  static auto& instance = *new FakeService(uniqueName());
  static const bool connected = g_client.init(instance.name(), 0, "l", &g_callback) && instance.accept();
  EXPECT_TRUE(connected);
  return instance;
}

const int kTids[] = {101, 102};
const std::vector<std::string> kFiles = {"/a", ""};

TEST(Requests, PutTheirFuncidTheirCallerAndTheirGoldenBodyOnTheWire) {
  constexpr int64_t kStamp = 7000000000;
  const struct {
    int funcid;
    std::function<int()> call;
    const char* body;
  } cases[] = {
      {1001, [] { return checkPermission(10, 20, 30, kStamp); }, ""},
      {1002, [] { return requestCpuHighFreq(3, 5, 2, 1000, 30, kStamp); }, "0803 1002 18E807 2005"},
      {1002, [] { return requestCpuHighFreq(-1, 1LL << 32 | 9, -2, 0, 30, kStamp); },
       "08FFFFFFFFFFFFFFFFFF01 10FEFFFFFFFFFFFFFFFF01 1800 208980808010"},
      {1003, [] { return cancelCpuHighFreq(30, kStamp); }, ""},
      {1004, [] { return requestCpuCoreForThread(1, 4, kTids, 2, 50, 30, kStamp); },
       "0801 1065 1066 1832 2004"},
      {1004, [] { return requestCpuCoreForThread(1, 4, nullptr, 0, 50, 30, kStamp); }, "0801 1832 2004"},
      {1005, [] { return cancelCpuCoreForThread(kTids, 2, 30, kStamp); }, "0865 0866"},
      {1006, [] { return requestHighIOFreq(3, 5, 2, 1000, 30, kStamp); }, "0803 1002 18E807 2005"},
      {1007, [] { return cancelHighIOFreq(30, kStamp); }, ""},
      {1008, [] { return requestScreenResolution(2, "ui", 30, kStamp); }, "0802 12027569"},
      {1009, [] { return resetScreenResolution(30, kStamp); }, ""},
      {1010, [] { return registerANRCallback(30, kStamp); }, ""},
      {1011, [] { return registerBootPreloadResource(kFiles, 30, kStamp); }, "0A022F61 0A00"},
      {1011, [] { return registerBootPreloadResource({}, 30, kStamp); }, ""},
      {1012, [] { return terminateApp(30, kStamp); }, ""},
      {1013, [] { return requestUnifyCpuIOThreadCore(1, 6, 2, 3, kTids, 2, 5, 30, kStamp); },
       "0801 1002 1803 2065 2066 2805 3006"},
      {1014, [] { return cancelUnifyCpuIOThreadCore(true, false, true, kTids, 1, 30, kStamp); },
       "0801 1000 1801 2065"},
      {1014, [] { return cancelUnifyCpuIOThreadCore(false, false, false, nullptr, 0, 30, kStamp); },
       "0800 1000 1800"},
  };
  service();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.funcid);
    const int64_t before = nowUs();
    const int result = c.call();
    const Bytes packet = service().readRequest();
    ASSERT_GE(packet.size(), 32u);
    const auto* const header = reinterpret_cast<const uint8_t*>(packet.data());
    EXPECT_EQ(packet.substr(0, 6), hex("52434448 0400"));
    EXPECT_EQ(read16le(header + 6), c.funcid);
    const auto sendTime = static_cast<int64_t>(read64le(header + 12));
    EXPECT_TRUE(before <= sendTime && sendTime <= nowUs());
    EXPECT_EQ(static_cast<int32_t>(sendTime), result) << "the low word of the send time";
    EXPECT_EQ(packet.substr(20, 12), hex("1E000000 0086 3BA1 0100 0000"));
    EXPECT_EQ(packet.substr(32), hex(c.body));
  }
}

TEST(Requests, AMessageLargerThanAThreadsStackIsCarriedWhole) {
  service();
  const std::vector<std::string> files(100000, std::string(100, 'f'));  // 10 MB; a stack has 8
  std::thread caller([&] { EXPECT_NE(registerBootPreloadResource(files, 30, 40), kNoEngine); });
  const Bytes packet = service().readRequest();
  caller.join();
  EXPECT_EQ(packet.size(), 32u + 100000 * 102);
  EXPECT_EQ(packet.substr(packet.size() - 102), hex("0A64") + files.back());
}

TEST(Requests, WithoutThreadsOrWithoutAnEngineSendNothing) {
  service();
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
