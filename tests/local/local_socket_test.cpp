// The transport over real abstract sockets, as a client of a fake service and as a server of plain clients.
#include "local/LocalSocket.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <vector>

#include "base/log.h"
#include "base/thread.h"
#include "support/LogCapture.h"
#include "support/Support.h"

namespace {

/// A transport that logs its events; its loop runs on a thread of the test.
class Transport : public LocalSocket {
 public:
  ~Transport() override { stop(); }
  void run(bool isServer) {
    m_thread = std::thread([this, isServer] {
      blockSigpipe();
      m_result = loop(isServer);
      m_ended = true;
    });
  }
  void stop() {
    uninit();
    if (m_thread.joinable()) m_thread.join();
  }
  bool queue(const Bytes& bytes, int fd = -1) {
    SendPack pack;
    pack.fd = fd >= 0 ? fd : m_fd.load();
    pack.data.reset(new uint8_t[bytes.size()]);
    memcpy(pack.data.get(), bytes.data(), bytes.size());
    pack.len = static_cast<int32_t>(bytes.size());
    return enqueue(std::move(pack));
  }
  /// The processor time that the loop's thread has used.
  std::chrono::nanoseconds used() {
    clockid_t clock{};
    timespec time{};
    EXPECT_EQ(pthread_getcpuclockid(m_thread.native_handle(), &clock), 0);
    clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  }
  bool saw(const std::string& event) const {
    return eventually([&] { return m_log.count("event " + event + "\"") > 0; });
  }
  int fd() const { return m_fd; }
  using LocalSocket::kQueuedPacks;

  std::atomic<bool> m_ended{false};
  std::atomic<int> m_result{99}, m_acceptResult{0}, m_dataResult{0}, m_accepted{0};
  std::atomic<int> m_mayHandle{INT_MAX}, m_arrived{0};  // with what arrives beyond it is busy

 protected:
  int32_t recvEvent(int32_t event, int32_t fd, uint32_t uid, const char* path, const uint8_t* data,
                    int32_t len) override {
    if (event == EVENT_ACCEPT) m_accepted = fd;
    LOG_WARN("event %d uid %u path %s data %.*s", event, uid, shownText(path), len,
             reinterpret_cast<const char*>(data));
    m_arrived += event == EVENT_DATA ? 1 : 0;
    EXPECT_TRUE(eventually([&] { return m_arrived <= m_mayHandle; }));
    return event == EVENT_ACCEPT ? m_acceptResult : m_dataResult;
  }

 private:
  const LogCapture m_log;
  std::thread m_thread;
};

/// A service and a running transport that are connected.
struct Connected {
  explicit Connected(const char* local = "") {
    EXPECT_EQ(transport.createSocket(local, service.name().c_str()), 0);
    transport.run(false);
    EXPECT_TRUE(service.accept());
  }
  const LogCapture log;
  FakeService service{uniqueName()};
  Transport transport;
};

/// Sends and receives; the socket is checked for what it must be.
void exchange(Connected& both) {
  EXPECT_EQ(fcntl(both.transport.fd(), F_GETFL) & O_NONBLOCK, 0) << "the connected socket stays blocking";
  EXPECT_EQ(fcntl(both.transport.fd(), F_GETFD), FD_CLOEXEC);
  for (const char* text : {"one ", "two ", "three"}) EXPECT_TRUE(both.transport.queue(text));
  EXPECT_EQ(both.service.read(13), "one two three");
  both.service.write("hello");
  EXPECT_TRUE(both.transport.saw("1 uid 0 path  data hello"));
}

TEST(LocalSocketClientSide, SendsQueuedPacksInOrderAndReportsWhatArrives) {
  Connected both("here");
  exchange(both);
  both.transport.stop();
  EXPECT_EQ(both.transport.m_result, 0);
  EXPECT_FALSE(both.transport.queue("late")) << "an ended loop takes nothing any more";
  EXPECT_EQ(both.log.count("6 ["), 0) << "to be told to end is no failure";
}

TEST(LocalSocketClientSide, WorksAboveAThousandTwentyFourDescriptors) {
  if (getenv("TARN_EMULATED") != nullptr) GTEST_SKIP() << "NOT TESTED: the emulator's select ends at 1023";
  const rlimit files = {4096, 4096};
  if (setrlimit(RLIMIT_NOFILE, &files) != 0) GTEST_SKIP() << "NOT TESTED: `ulimit -Hn` is below 4096";
  std::vector<int> held(1500);
  for (int& fd : held) fd = open("/dev/null", O_RDONLY);
  ASSERT_GE(held.back(), 0);
  Connected both;
  EXPECT_GT(both.transport.fd(), 1500);
  exchange(both);
  for (const int fd : held) close(fd);
}

TEST(LocalSocketClientSide, EveryPackWakesALoopThatSleepsAndAStopEndsOneThatIsStuckInASend) {
  Connected both;
  both.service.urge();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it sleeps by now
    both.transport.queue("ping");
    EXPECT_EQ(both.service.read(4), "ping");
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500)) << "a second each";
  both.transport.queue(Bytes(8 << 20, 's'));  // more than any socket buffer; the service reads none of it
  both.transport.stop();
  EXPECT_TRUE(both.transport.m_ended);
}

TEST(LocalSocketClientSide, WhoWaitsForAPlaceGetsItAlsoWhileTheOwnerIsBusyWithWhatArrived) {
  Connected both;
  both.transport.m_mayHandle = 0;
  both.service.write("1");
  EXPECT_TRUE(both.transport.saw("1 uid 0 path  data 1"));
  std::atomic<unsigned> queued{0};
  std::vector<std::thread> producers;
  for (int i = 0; i < 8; ++i) producers.emplace_back([&] { queued += both.transport.queue("p") ? 1 : 0; });
  EXPECT_TRUE(eventually([&] { return queued == Transport::kQueuedPacks; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // so that the rest waits
  both.service.write("2");
  both.transport.m_mayHandle = 1;
  EXPECT_TRUE(both.transport.saw("1 uid 0 path  data 2"));
  EXPECT_TRUE(eventually([&] { return queued > Transport::kQueuedPacks; })) << "one pack is sent by now";
  both.transport.m_mayHandle = 2;
  for (std::thread& producer : producers) producer.join();
}

/// A caller fills the socket, then the queue behind it, after `first` packs. How long that takes, and the
/// service then to read all of it; the loop must not turn meanwhile.
std::chrono::steady_clock::duration fillAndDrain(int first) {
  Connected both;
  const LogCapture log(true);
  const Bytes pack(4096, 'p');
  std::atomic<int> queued{0};
  const std::string full = "\" FD_ISSET(fd, &fdset) :0 fd:";
  for (; queued < first; ++queued) both.transport.queue(pack);
  EXPECT_TRUE(eventually([&] { return log.count("\"send: ret:") == first; }));
  const auto start = std::chrono::steady_clock::now();
  std::thread caller([&] {
    while (both.transport.queue(pack)) ++queued;
  });
  EXPECT_TRUE(eventually([&] { return log.count(full) > 0 && queued == log.count("\"send: ret:") + 5; }))
      << "there are places for five";
  const auto filled = std::chrono::steady_clock::now() - start;
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_LE(log.count(full), 12) << "neither a pack nor the loop itself turns it";
  const auto readFrom = std::chrono::steady_clock::now();
  const size_t bytes = queued * pack.size();
  EXPECT_EQ(both.service.read(bytes).size(), bytes);
  const auto drained = std::chrono::steady_clock::now() - readFrom;
  both.transport.stop();
  caller.join();
  return filled + drained;
}

// Nor are callers kept waiting while there are places: that would be a second for some number of first packs.
TEST(LocalSocketClientSide, AFullSocketIsWatchedAndNotLookedAtOnceASecond) {
  for (int first = 0; first < 5; ++first) {
    const auto fast = [first] { return fillAndDrain(first) < std::chrono::milliseconds(900); };
    EXPECT_TRUE(fast() || fast() || fast()) << first;  // a slow machine gets three tries
  }
}

TEST(LocalSocketClientSide, WhatAServiceLeavesBehindMakesTheLoopNeitherSpinNorEndBeforeASendFails) {
  void (*const deeds[])(Connected&) = {
      [](Connected& both) {
        both.service.stop();
        EXPECT_TRUE(both.transport.saw("0 uid 0 path (null) data "));
      },
      [](Connected& both) {
        both.transport.m_dataResult = -1;  // nonsense, and no end of it
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(250);
        while (std::chrono::steady_clock::now() < end) both.service.write(Bytes(4096, 'g'));
      },
      [](Connected& both) {
        both.service.finish();
        EXPECT_TRUE(both.transport.saw("0 uid 0 path (null) data "));
        for (int i = 0; i < 5; ++i) both.transport.queue(Bytes(8 << 20, 's'));
      },
  };
  for (const auto& deed : deeds) {
    SCOPED_TRACE(&deed - deeds);
    Connected both;
    deed(both);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_LT(both.transport.used(), std::chrono::milliseconds(100));
    EXPECT_FALSE(both.transport.m_ended);
    both.service.stop();
    both.transport.queue("lost");
    EXPECT_TRUE(eventually([&] { return both.transport.m_ended.load(); }));
    EXPECT_EQ(both.transport.fd(), 0);
  }
}

TEST(LocalSocketSetup, ABusyServiceIsNotWaitedForAndANameHasAtMost107Bytes) {
  FakeService busy(uniqueName(), 0);
  const int first = plainClient(busy.name());  // fills the backlog of a service that does not accept
  const std::string longest(107, 'n'), tooLong = longest + "n";
  const std::pair<const char*, const char*> cases[] = {
      {"l", busy.name().c_str()}, {"l", tooLong.c_str()}, {tooLong.c_str(), ""}};
  for (const auto& [local, remote] : cases) {
    const LogCapture log;
    Transport transport;
    EXPECT_LT(transport.createSocket(local, remote), 0);
    EXPECT_EQ(transport.fd(), 0);
    EXPECT_EQ(log.count("6 ["), 1);
  }
  close(first);
  FakeService listening(longest);
  EXPECT_EQ(Transport().createSocket("", longest.c_str()), 0);
}

TEST(LocalSocketServerSide, TellsPeersApartEvenByAReusedNumberAndEndsWithTheFirstItRefuses) {
  const LogCapture log;
  const std::string name = uniqueName(), longest(107, 'c'), uid = std::to_string(getuid());
  Transport server;
  ASSERT_EQ(server.createSocket(name.c_str(), nullptr), 0);
  server.run(true);
  const int stuck = plainClient(name);
  ASSERT_TRUE(server.saw("3 uid " + uid + " path  data "));
  EXPECT_TRUE(server.queue(Bytes(8 << 20, 's'), server.m_accepted));  // holds up what is queued behind it
  const int gone = plainClient(name, longest);
  ASSERT_TRUE(server.saw("3 uid " + uid + " path " + longest + " data "));
  const int number = server.m_accepted;
  EXPECT_TRUE(server.queue("for a peer that is gone", number));
  ASSERT_EQ(write(gone, "ping", 4), 4);
  ASSERT_TRUE(server.saw("1 uid " + uid + " path " + longest + " data ping"));
  close(gone);
  ASSERT_TRUE(server.saw("0 uid " + uid + " path " + longest + " data "));
  ASSERT_TRUE(eventually([&] { return fcntl(number, F_GETFD) == -1; }));
  server.m_accepted = 0;
  const int next = plainClient(name);
  ASSERT_TRUE(eventually([&] { return server.m_accepted == number; }));
  EXPECT_TRUE(server.queue("pong", number));
  shutdown(stuck, SHUT_RDWR);
  char answer[5] = {};
  EXPECT_EQ(recv(next, answer, 4, MSG_WAITALL), 4);
  EXPECT_STREQ(answer, "pong");
  server.m_acceptResult = -1;
  const int refused = plainClient(name);
  EXPECT_EQ(recv(refused, answer, 1, 0), 0) << "closed";
  EXPECT_TRUE(eventually([&] { return server.m_result == -1; }));
  EXPECT_EQ(log.linesWith("NotAccept").size(), 1u);
  for (const int fd : {stuck, next, refused}) close(fd);
}

}  // namespace
