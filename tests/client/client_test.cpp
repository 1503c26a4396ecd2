// The client: when it starts engines, what requests put on the wire, and how it lives through the service's
// deaths.
#include "client/client.h"
#include "client/protocol.h"

#include <functional>
#include <map>

#include "base/bytes.h"
#include "base/clock.h"
#include "bridge/C2Java.h"
#include "support/LogCapture.h"
#include "support/Support.h"

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
    const char* remote;
    int port;
    const char* local;
    int result;  // of further tryStartEngine() calls
  } cases[] = {
      {"", 0, "l", -1},
      {service.name().c_str(), -1, "", -1},  // no local name
      {nobody.c_str(), 0, "l", -3},
      {service.name().c_str(), 0, "l", -2},  // runs
      {"127.0.0.1", 9, "", -3},              // UDP: built and discarded
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    Client& fresh = kept<Client>();
    EXPECT_EQ(fresh.engine(), nullptr) << "nothing is configured, and there is no sink yet";
    fresh.init(c.remote, c.port, c.local, &queue);
    EXPECT_EQ(fresh.isRunning(), c.result == -2);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(fresh.tryStartEngine(), c.result);
    EXPECT_EQ(fresh.engine() != nullptr, c.result == -2);
  }
  EXPECT_EQ(log.count("5 [udp.cpp,createSocket:"), 1) << "one UDP engine, the later attempts are throttled";
}

/// A sink that wants the client's lock while it is told something.
struct AskingSink : Callback {
  int32_t pushCallback(int32_t type, int64_t timestamp, int32_t status, int32_t funcid, int32_t code,
                       const uint8_t* data, int32_t len) override {
    std::thread([this] { client->isRunning(), ++asked; }).detach();
    ++told;
    EXPECT_TRUE(eventually([&] { return asked == told; })) << "reported with the client's lock held";
    return Callback::pushCallback(type, timestamp, status, funcid, code, data, len);
  }
  Client* client = nullptr;
  std::atomic<int> asked{0}, told{0};
};

TEST_F(ClientTest, ReportsEveryRequestThatFindsNoEngineHoldsNoLockAndThrottlesTheAttempts) {
  auto& sink = kept<AskingSink>();
  sink.client = &client;
  // Milliseconds beyond 32 bits; the others are refused.
  for (const int seconds : {3000000, 0, -5}) client.setRetryConnectInterval(seconds);
  EXPECT_TRUE(client.init("", 0, "", &queue)) << "replaced by the next one, as no engine is held";
  client.init(uniqueName(), 0, "l", &sink);
  const LogCapture log(true);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(client.engine(), nullptr);
    const auto report = sink.take();
    EXPECT_EQ(report.type, 1);
    EXPECT_EQ(report.status, -20001);
    EXPECT_EQ(report.timestamp + report.funcid + report.code + report.len, 0);
  }
  EXPECT_EQ(log.count("3 [client.cpp,tryStartEngine:312]\"tryStartEngine TimeDiff:"), 3);
  EXPECT_EQ(log.count("\"connect ret:"), 0) << "the attempt of init() has used the interval up";
}

TEST_F(ClientTest, RestartsAfterTheServiceCameBackAndTheIntervalHasPassed) {
  init();
  ASSERT_TRUE(service.accept());
  EXPECT_TRUE(eventually([] { return stateOf("tarn-engine") != 0; })) << "it names itself";
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
}

TEST_F(ClientTest, RequestsOfManyThreadsStayWholeAndWhoeverWaitsComesBackWhenTheServiceDies) {
  init();
  ASSERT_TRUE(service.accept());
  const auto engine = client.engine();
  const auto bodyOf = [](uint32_t caller, int64_t i) { return Bytes(i * 997 % 9000, char('a' + caller)); };
  std::atomic<int> sent{0};
  const auto send = [&](const Bytes& body, uint32_t caller, int i) {
    EXPECT_GT(engine->sendReq(1011, at(body), body.size(), caller, i), 0);
    ++sent;
  };
  std::vector<std::thread> threads;
  for (uint32_t caller = 0; caller < 12; ++caller) {
    threads.emplace_back([&, caller] {
      for (int i = 0; i < 100; ++i) send(bodyOf(caller, i), caller, i);
      EXPECT_TRUE(eventually([&] { return sent >= 1200; }));
      send(Bytes(1 << 20, 'x'), caller, 100);
    });
  }
  std::map<uint32_t, int64_t> next;
  for (int i = 0; i < 1200; ++i) {
    const Bytes packet = service.readRequest();
    const uint32_t caller = read32le(at(packet, 20));
    EXPECT_EQ(read64le(at(packet, 24)), next[caller]);
    EXPECT_EQ(packet.substr(32), bodyOf(caller, next[caller]++));
  }
  EXPECT_TRUE(eventually([&] { return sent == 1205; })) << "the one being written keeps its place";
  service.stop();
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(eventually([&] { return !engine->isRunning(); }));
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
    EXPECT_EQ(packet.substr(0, 6), hex("52434448 0400"));
    EXPECT_EQ(read16le(at(packet, 6)), c.funcid);
    const auto sendTime = static_cast<int64_t>(read64le(at(packet, 12)));
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

TEST(Requests, WithoutThreadsABodyOrAnEngineSendNothing) {
  service();
  const LogCapture log;
  EXPECT_EQ(g_client.engine()->sendReq(1001, nullptr, 3, 30, 40), -1);
  EXPECT_EQ(g_client.engine()->sendReq(1001, reinterpret_cast<const uint8_t*>(&log), UINT32_MAX, 30, 40), -1);
  EXPECT_EQ(log.count("6 [header.cpp,genReqPack:26]\"getReqPack input data len "), 2);
  EXPECT_EQ(cancelCpuCoreForThread(nullptr, 0, 30, 40), kNoThreads);
  g_client.setEnable(false);
  EXPECT_EQ(cancelCpuCoreForThread(nullptr, 0, 30, 40), kNoEngine);
  EXPECT_TRUE(g_client.isRunning());
  g_client.setEnable(true);
  EXPECT_NE(resetScreenResolution(30, 40), kNoEngine);
  EXPECT_EQ(read16le(at(service().readRequest(), 6)), 1009) << "nothing was sent before it";
}

}  // namespace
