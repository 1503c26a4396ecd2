// The reference service: what it understands, does, answers and undoes, asked in plain bytes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>

#include "FreqBoost.h"
#include "Listener.h"
#include "Preload.h"
#include "Reply.h"
#include "RequestReader.h"
#include "support/RunningService.h"

namespace {

using service::Boosts;
using service::Hold;
using service::Outcome;
using service::Push;
using testing::Test;

// ---- Decoding ------------------------------------------------------------------------------------------

TEST(ServiceRequests, EveryRequestIsReadFromItsBytesAndShownInOneLine) {
  const struct {
    uint16_t funcid;
    const char* body;
    const char* line;
  } cases[] = {
      {1001, "", "checkPermission pid="},
      {1002, "08 03 10 02 18 e8 07 20 05", "scene=3 level=2 timeoutms=1000 action=5"},
      {1003, "", "cancelCpuHighFreq pid="},
      {1004, "08 03 10 65 10 66 18 e8 07 20 05", "scene=3 bindtids=[101,102] timeout=1000 action=5"},
      {1004, "08 03 12 02 65 66 18 00 20 05", "bindtids=[101,102] timeout=0"},  // a packed list is fine too
      {1005, "08 65 08 66", "cancelCpuCoreForThread"},
      {1006, "08 ff ff ff ff ff ff ff ff ff 01 10 02 18 00 20 80 80 80 80 10",
       "scene=-1 level=2 timeoutms=0 action=4294967296"},
      {1007, "", "cancelHighIOFreq pid="},
      {1008, "08 02 12 04 41 0a 22 42", "level=2 uiName=\"A\\x0a\\x22B\""},
      {1009, "", "resetScreenResolution pid="},
      {1010, "", "registerANRCallback pid="},
      {1011, "0a 02 2f 61 0a 02 2f 62", "files=2 [\"/a\", \"/b\"]"},
      {1011, "", "files=0 []"},
      {1012, "", "terminateApp pid="},
      {1013, "08 01 10 02 18 03 20 65 28 0a 30 07",
       "scene=1 cpulevel=2 iolevel=3 bindtids=[101] timeout=10 action=7"},
      {1014, "08 01 10 00 18 01 20 65", "cancelcpu=1 cancelio=0 cancelthread=1 bindtids=[101]"},
      {1099, "ff", "unknownRequest pid="},
  };
  service::Policy scripted;  // so that nothing is done
  for (const auto& c : cases) scripted.scriptedStatus[c.funcid] = 40;
  RunningService running(scripted);
  BytesClient client(running.name());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(client.ask(c.funcid, hex(c.body)), 40u);
    const auto lines = running.linesWith(c.line);
    ASSERT_EQ(lines.size(), 1u);
    const std::string start = std::to_string(c.funcid) + " ";
    EXPECT_EQ(lines[0].compare(0, start.size(), start), 0) << lines[0];
    EXPECT_NE(
        lines[0].find(" pid=" + std::to_string(getpid()) + " uid=" + std::to_string(getuid()) + " tid=77"),
        std::string::npos)
        << lines[0];
  }
}

TEST(ServiceRequests, GoldenRequestGetsGoldenReply) {
  RunningService running;
  BytesClient client(running.name());
  // magic, version 4, funcid 1009, no body, send time 2, tid 3, time stamp 7,000,000,000
  client.send(hex("52434448 0400 f103 00000000 0200000000000000 03000000 0086 3ba1 01000000"));
  // magic, version 4, funcid, status 0, no body, the send time, the time stamp
  EXPECT_EQ(client.read(32), hex("52434448 0400 f103 00000000 00000000 0200000000000000 0086 3ba1 01000000"));
}

TEST(ServiceRequests, RequestsSplitAtEveryByteAreAnsweredOnce) {
  const Bytes two = request(1002, hex("08 03 10 02 18 e8 07 20 05")) + request(1003);
  for (size_t split = 0; split <= two.size(); ++split) {
    service::RequestReader reader;
    std::vector<uint16_t> seen;
    const auto feed = [&](const Bytes& part) {
      reader.append(reinterpret_cast<const uint8_t*>(part.data()), part.size());
      service::RequestPacket packet;
      std::string problem;
      while (reader.next(packet, problem) == service::RequestReader::Result::PACKET) {
        seen.push_back(packet.funcid);
        EXPECT_EQ(packet.body.size(), packet.funcid == 1002 ? 9u : 0u);
      }
    };
    feed(two.substr(0, split));
    EXPECT_EQ(seen.size(), split < 41 ? 0u : split < two.size() ? 1u : 2u) << split;
    feed(two.substr(split));
    EXPECT_EQ(seen, (std::vector<uint16_t>{1002, 1003})) << split;
  }
}

TEST(ServiceRequests, BadInputClosesThatClientOnly) {
  Bytes wrongMagic = request(1003);
  wrongMagic[0] = 'X';
  Bytes wrongVersion = request(1003);
  wrongVersion[4] = 5;
  Bytes tooLong = request(1011);
  write32le(reinterpret_cast<uint8_t*>(&tooLong[8]), service::kMaxRequestBody + 1);
  const struct {
    Bytes bytes;
    const char* line;
  } cases[] = {
      {wrongMagic, "magic 0x48444358 instead of 0x48444352"},
      {wrongVersion, "header version 5 instead of 4"},
      {tooLong, "16777217 bytes is announced"},
      {request(1002), "the 0 body bytes of requestCpuHighFreq are not its message"},
      {request(1004, hex("08 03 10")), "the 3 body bytes of requestCpuCoreForThread are not its message"},
  };
  RunningService running;
  BytesClient bystander(running.name());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    BytesClient client(running.name());
    EXPECT_EQ(client.ask(1003), 0u);
    client.send(request(1009) + c.bytes + request(1003));
    EXPECT_EQ(client.read(1000).size(), 32u) << "the request before it is answered, those behind it are not";
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(running.linesWith(c.line).size(), 1u);
    EXPECT_EQ(bystander.ask(1003), 0u);
  }
}

// ---- Boosts --------------------------------------------------------------------------------------------

/// A setting that tells what was done to it.
class FakeSetting : public service::Setting {
 public:
  FakeSetting(std::string key, std::string& deeds) : m_key(std::move(key)), m_deeds(deeds) {}
  std::string key() const override { return m_key; }
  Outcome apply(int strength) override {
    if (strength > 100) return {service::STATUS_FAILED, "too strong"};
    m_deeds += m_key + std::to_string(strength) + " ";
    return {};
  }
  Outcome restore() override {
    m_deeds += m_key + "- ";
    return {};
  }

 private:
  const std::string m_key;
  std::string& m_deeds;
};

class ServiceBoosts : public Test {
 protected:
  uint32_t hold(uint64_t peer, const char* key, int strength, int64_t expiresAt = service::kNoExpiry) {
    Hold wish;
    wish.peerId = peer;
    wish.strength = strength;
    wish.expiresAt = expiresAt;
    return m_boosts.hold(wish, std::make_unique<FakeSetting>(key, m_deeds)).status;
  }
  std::string takeDeeds() { return std::exchange(m_deeds, ""); }

  std::string m_deeds;
  const service::Journal m_journal{service::Verbosity::Quiet, [](const std::string&) {}};
  Boosts m_boosts{m_journal};
};

TEST_F(ServiceBoosts, TheStrongestHoldRulesAndTheLastOneToEndRestores) {
  hold(1, "a", 2, 100);
  hold(2, "a", 1, 300);
  hold(1, "a", 3, 200);
  hold(2, "b", 1);
  EXPECT_EQ(takeDeeds(), "a2 a2 a3 b1 ");
  EXPECT_EQ(m_boosts.nextExpiry(), 100);
  EXPECT_EQ(m_boosts.endExpired(99), 0u);
  EXPECT_EQ(m_boosts.endExpired(100), 1u);
  EXPECT_EQ(takeDeeds(), "a3 ");
  EXPECT_EQ(m_boosts.endExpired(250), 1u);
  EXPECT_EQ(takeDeeds(), "a1 ");
  EXPECT_EQ(m_boosts.endExpired(300), 1u);
  EXPECT_EQ(takeDeeds(), "a- ");
  EXPECT_EQ(m_boosts.nextExpiry(), service::kNoExpiry);
  m_boosts.endAll("end");
  EXPECT_EQ(takeDeeds(), "b- ");
}

TEST_F(ServiceBoosts, AFailedBoostHoldsNothingAndDisturbsNoOther) {
  EXPECT_EQ(hold(1, "a", 101), service::STATUS_FAILED);
  EXPECT_EQ(m_boosts.size(), 0u);
  hold(1, "a", 1);
  EXPECT_EQ(hold(2, "a", 101), service::STATUS_FAILED);
  EXPECT_EQ(m_boosts.endAll("end"), 1u);
  EXPECT_EQ(takeDeeds(), "a1 a- ");
}

TEST_F(ServiceBoosts, OnePeersHoldsAreBoundedAndAnotherPeerStillGetsIts) {
  for (size_t i = 0; i < service::kMaxHoldsPerPeer; ++i) ASSERT_EQ(hold(1, "a", 1), 0u);
  EXPECT_EQ(hold(1, "a", 1), service::STATUS_TOO_MANY_BOOSTS);
  EXPECT_EQ(hold(2, "a", 1), 0u);
  m_boosts.end([](const Hold& held) { return held.peerId == 1; }, "gone");
  EXPECT_EQ(hold(1, "a", 1), 0u);
}

// ---- Effects -------------------------------------------------------------------------------------------

/// A folder of the test's own, removed with all its files.
class TemporaryFolder {
 public:
  TemporaryFolder() { EXPECT_NE(mkdtemp(&m_path[0]), nullptr); }
  ~TemporaryFolder() { EXPECT_EQ(std::system(("rm -r " + m_path).c_str()), 0); }
  const std::string& path() const { return m_path; }
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(m_path + "/" + name) << text;
    return m_path + "/" + name;
  }
  std::string read(const std::string& name) const {
    std::string line;
    std::getline(std::ifstream(m_path + "/" + name), line);
    return line;
  }

 private:
  std::string m_path = "/tmp/tarnbooster_test_XXXXXX";
};

/// A made-up /sys: CPUs 0 and 1 share one policy, as the cores of a cluster do, CPU 2 has its own.
class ServiceFrequency : public Test {
 protected:
  ServiceFrequency() {
    const std::string cpus = m_sys.path() + "/devices/system/cpu/";
    const std::string make = "cd " + m_sys.path() +
                             " && mkdir -p devices/system/cpu && cd devices/system/cpu"
                             " && mkdir -p cpu0/cpufreq cpu1 cpu2/cpufreq cpu3 cpuidle"
                             " && ln -s ../cpu0/cpufreq cpu1/cpufreq";
    EXPECT_EQ(std::system(make.c_str()), 0);
    for (const char* cpu : {"cpu0", "cpu2"}) {
      const std::string folder = "devices/system/cpu/" + std::string(cpu) + "/cpufreq/";
      m_sys.write(folder + "scaling_min_freq", "400000\n");
      m_sys.write(folder + "cpuinfo_min_freq", "300000\n");
      m_sys.write(folder + "scaling_max_freq", "1800000\n");
    }
  }
  std::string lowest(int cpu) const {
    return m_sys.read("devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/scaling_min_freq");
  }
  service::Policy policy() const {
    service::Policy made;
    made.sysRoot = m_sys.path();
    return made;
  }
  TemporaryFolder m_sys;
};

TEST_F(ServiceFrequency, LevelsRaiseTheFloorAndEndPutsBackWhatWasThere) {
  RunningService running(policy());
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1002, hex("08 03 10 01 18 00 20 05")), 0u);  // level 1, no timeout
  EXPECT_EQ(lowest(0) + " " + lowest(2), "800000 800000");
  EXPECT_EQ(client.ask(1002, hex("08 03 10 09 18 00 20 05")), 0u);  // level 9
  EXPECT_EQ(lowest(0) + " " + lowest(2), "1800000 1800000");
  BytesClient other(running.name());
  EXPECT_EQ(other.ask(1002, hex("08 03 10 02 18 00 20 05")), 0u);
  EXPECT_EQ(lowest(2), "1800000") << "a weaker boost beside a stronger one changes nothing";
  EXPECT_EQ(client.ask(1003), 0u);
  EXPECT_EQ(lowest(0) + " " + lowest(2), "1300000 1300000") << "the other client's still holds";
  EXPECT_EQ(other.ask(1002, hex("08 03 10 00 18 00 20 05")), service::STATUS_BAD_ARGUMENT);
  other.hangUp();
  EXPECT_TRUE(eventually([&] { return lowest(0) == "400000" && lowest(2) == "400000"; })) << lowest(0);
}

TEST_F(ServiceFrequency, AFloorThatSomebodyElseMovedIsLeftAlone) {
  RunningService running(policy());
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1002, hex("08 03 10 01 18 00 20 05")), 0u);
  m_sys.write("devices/system/cpu/cpu2/cpufreq/scaling_min_freq", "600000\n");
  running.stop();
  EXPECT_EQ(lowest(0) + " " + lowest(2), "400000 600000");
}

TEST_F(ServiceFrequency, AMachineWithoutItIsAnsweredSo) {
  service::Policy none;
  none.sysRoot = "/nowhere";
  RunningService running(none);
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1002, hex("08 03 10 01 18 00 20 05")), service::STATUS_NOT_AVAILABLE);
  // The unified boost: the CPU part cannot be had, the I/O part can.
  const uint32_t unified = client.ask(1013, hex("08 01 10 02 18 01 28 00 30 07"));
  if (unified == service::STATUS_NOT_AVAILABLE) GTEST_SKIP() << "no I/O priorities here";
  EXPECT_EQ(unified, service::STATUS_PARTLY);
}

/// A thread of this process that waits until the object ends.
class ParkedThread {
 public:
  ParkedThread()
      : m_thread([this] {
          m_tid.set_value(static_cast<pid_t>(syscall(SYS_gettid)));
          m_end.get_future().wait();
        }),
        m_number(m_tid.get_future().get()) {}
  ~ParkedThread() {
    m_end.set_value();
    m_thread.join();
  }
  pid_t tid() const { return m_number; }
  std::vector<int> cpus() const {
    cpu_set_t set{};
    EXPECT_EQ(sched_getaffinity(m_number, sizeof(set), &set), 0);
    std::vector<int> numbers;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &set)) numbers.push_back(cpu);
    }
    return numbers;
  }

 private:
  std::promise<pid_t> m_tid;
  std::promise<void> m_end;
  std::thread m_thread;
  const pid_t m_number;
};

amc::RequestCPUCoreForThread bindRequest(std::initializer_list<int> tids, int timeout) {
  amc::RequestCPUCoreForThread message;
  message.set_scene(1);
  for (const int tid : tids) message.add_bindtids(tid);
  message.set_timeout(timeout);
  message.set_action(1);
  return message;
}

TEST(ServiceCores, AThreadIsBoundToItsHighestCpuAndGetsItsOwnBack) {
  ParkedThread thread;
  const auto before = thread.cpus();
  if (before.size() < 2) GTEST_SKIP() << "this process may use one CPU only: nothing would change";
  const std::vector<int> bound{before.back()};
  amc::CancelCPUCoreForThread cancel;
  cancel.add_bindtids(thread.tid());
  const Bytes untilCancelled = bindRequest({thread.tid()}, 0).SerializeAsString();
  RunningService running;
  {
    SCOPED_TRACE("timeout");
    BytesClient client(running.name());
    EXPECT_EQ(client.ask(1004, bindRequest({thread.tid()}, 1).SerializeAsString()), 0u);
    EXPECT_TRUE(running.says("-> " + std::to_string(bound[0]) + ")")) << "it was bound for a moment";
    EXPECT_TRUE(eventually([&] { return thread.cpus() == before; }));
    EXPECT_TRUE(running.says("its time is up"));
  }
  {
    SCOPED_TRACE("overlap, then cancel");
    BytesClient client(running.name());
    BytesClient other(running.name());
    EXPECT_EQ(client.ask(1004, untilCancelled), 0u);
    EXPECT_EQ(other.ask(1004, untilCancelled), 0u);
    EXPECT_EQ(client.ask(1005, cancel.SerializeAsString()), 0u);
    EXPECT_EQ(thread.cpus(), bound) << "the other client still holds it";
    EXPECT_EQ(other.ask(1005, cancel.SerializeAsString()), 0u);
    EXPECT_EQ(thread.cpus(), before);
  }
  {
    SCOPED_TRACE("disconnect");
    BytesClient client(running.name());
    EXPECT_EQ(client.ask(1004, untilCancelled), 0u);
    EXPECT_EQ(thread.cpus(), bound);
    client.hangUp();
    EXPECT_TRUE(eventually([&] { return thread.cpus() == before; }));
  }
  {
    SCOPED_TRACE("the service ends");
    BytesClient client(running.name());
    EXPECT_EQ(client.ask(1004, untilCancelled), 0u);
    running.stop();
    EXPECT_EQ(thread.cpus(), before);
  }
}

TEST(ServiceCores, OnlyThreadsOfTheClientAreTouched) {
  ParkedThread thread;
  RunningService running;
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1004, bindRequest({1}, 0).SerializeAsString()), service::STATUS_NOT_YOURS);
  EXPECT_EQ(client.ask(1004, bindRequest({-5, 0}, 0).SerializeAsString()), service::STATUS_NOT_YOURS);
  EXPECT_EQ(client.ask(1004, bindRequest({1, thread.tid()}, 0).SerializeAsString()), service::STATUS_PARTLY);
  EXPECT_EQ(client.ask(1004, bindRequest({}, 0).SerializeAsString()), service::STATUS_BAD_ARGUMENT);
  EXPECT_EQ(client.ask(1004, bindRequest({thread.tid()}, -1).SerializeAsString()),
            service::STATUS_BAD_ARGUMENT);
}

TEST(ServiceCores, TheUnifiedCancelTakesBackThePartsItNamesAndNoOthers) {
  ParkedThread thread;
  const auto before = thread.cpus();
  if (before.size() < 2) GTEST_SKIP() << "this process may use one CPU only: nothing would change";
  amc::RequestUnifyCPUIOThreadCore boost;
  boost.set_scene(1);
  boost.set_cpulevel(0);
  boost.set_iolevel(0);
  boost.add_bindtids(thread.tid());
  boost.set_timeout(0);
  boost.set_action(1);
  RunningService running;
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1013, boost.SerializeAsString()), 0u);
  EXPECT_EQ(client.ask(1014, hex("08 01 10 01 18 00")), 0u);
  EXPECT_EQ(thread.cpus().size(), 1u);
  EXPECT_EQ(client.ask(1014, hex("08 00 10 00 18 01 20 01")), 0u);
  EXPECT_EQ(thread.cpus().size(), 1u) << "another thread was named";
  EXPECT_EQ(client.ask(1014, hex("08 00 10 00 18 01")), 0u);
  EXPECT_EQ(thread.cpus(), before);
}

TEST(ServiceIo, PriorityOfTheClientsThreadsIsRaisedAndPutBack) {
  ParkedThread thread;
  const auto priority = [&] { return syscall(SYS_ioprio_get, 1, thread.tid()); };
  const auto before = priority();
  if (before < 0) GTEST_SKIP() << "no I/O priorities here: " << strerror(errno);
  RunningService running;
  BytesClient client(running.name());
  const uint32_t status = client.ask(1006, hex("08 03 10 02 18 00 20 05"));
  if (status != 0) GTEST_SKIP() << "this system refuses I/O priorities, status " << status;
  EXPECT_EQ(priority(), 2 << 13 | 1);
  EXPECT_EQ(client.ask(1006, hex("08 03 10 03 18 00 20 05")), 0u);
  EXPECT_EQ(priority(), 2 << 13 | 0);
  EXPECT_EQ(client.ask(1007), 0u);
  EXPECT_EQ(priority(), before);
}

TEST(ServicePreload, ReadsRegularFilesAheadAndOpensNothingElse) {
  TemporaryFolder folder;
  const std::string file = folder.write("file", "text");
  const std::string fifo = folder.path() + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const struct {
    std::vector<std::string> files;
    uint32_t status;
  } cases[] = {
      {{}, service::STATUS_DONE},
      {{file, file}, service::STATUS_DONE},
      {{fifo}, service::STATUS_BAD_ARGUMENT},  // an open would wait for a writer
      {{folder.path()}, service::STATUS_BAD_ARGUMENT},
      {{"/dev/zero"}, service::STATUS_BAD_ARGUMENT},
      {{"file"}, service::STATUS_BAD_ARGUMENT},
      {{""}, service::STATUS_BAD_ARGUMENT},
      {{folder.path() + "/none"}, service::STATUS_FAILED},
      {{folder.path() + "/none", file}, service::STATUS_PARTLY},
      {std::vector<std::string>(service::kMaxPreloadFiles + 1, file), service::STATUS_PARTLY},
  };
  RunningService running;
  BytesClient client(running.name());
  for (const auto& c : cases) {
    amc::RequestBootPreLoadResource message;
    for (const std::string& name : c.files) message.add_files(name);
    EXPECT_EQ(client.ask(1011, message.SerializeAsString()), c.status) << c.files.size();
  }
}

TEST(ServicePreload, LooksAtFilesWithTheClientsRights) {
  if (geteuid() != 0) GTEST_SKIP() << "only root sees more than its clients";
  TemporaryFolder folder;
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  const std::string secret = folder.write("secret", "text");
  amc::RequestBootPreLoadResource message;
  message.add_files(secret);
  const service::Peer unknown;
  ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
  EXPECT_EQ(service::preloadFiles(message, unknown).status, service::STATUS_NOT_PERMITTED);
  ASSERT_EQ(chmod(secret.c_str(), 0644), 0);
  EXPECT_EQ(service::preloadFiles(message, unknown).status, service::STATUS_DONE);
}

TEST(ServiceTerminate, EndsTheClientOnlyWhenAllowed) {
  for (const bool allowed : {false, true}) {
    int start[2];
    ASSERT_EQ(pipe2(start, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {  // before any other thread is there, so the child may do as it likes
      char name[64] = {};
      if (read(start[0], name, sizeof(name) - 1) <= 0) _exit(2);
      _exit(static_cast<int>(BytesClient(name).ask(1012)));
    }
    service::Policy policy;
    policy.allowTerminate = allowed;
    RunningService running(policy);
    ASSERT_GT(write(start[1], running.name().data(), running.name().size()), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (allowed) {
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    } else {
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == service::STATUS_NOT_PERMITTED) << status;
    }
    close(start[0]);
    close(start[1]);
  }
}

// ---- Pushes, scripted answers, sockets -----------------------------------------------------------------

TEST(ServicePush, AnEmptyReplyAlwaysStandsBetweenTwoBodies) {
  service::ServerOptions options;
  options.onRegister = {{7, "abc"}, {-1, ""}};
  RunningService running({}, options);
  BytesClient client(running.name());
  client.send(request(1010, "", 3, 9));
  const Bytes seven = hex("08 07 12 03 616263");
  const Bytes minusOne = hex("08 ff ff ff ff ff ff ff ff ff 01 12 00");
  const Bytes wanted =
      reply(1010, 0, "", 9, 1234567) + reply(1010, 0, seven) + reply(1010, 0) + reply(1010, 0, minusOne);
  EXPECT_EQ(client.read(wanted.size()), wanted);
  EXPECT_EQ(client.ask(1003), 0u) << "nothing else was sent";
}

TEST(ServicePush, OnlyRegisteredClientsGetThem) {
  service::ServerOptions options;
  options.repeat = {{{7, "abc"}, 20, 0}};
  service::Policy policy;
  RunningService running(policy, options);
  BytesClient registered(running.name());
  BytesClient other(running.name());
  EXPECT_EQ(registered.ask(1010), 0u);
  const Bytes push = reply(1010, 0, hex("08 07 12 03 616263"));
  EXPECT_EQ(registered.read(push.size()), push);
  EXPECT_EQ(registered.read(push.size() + 32), reply(1010, 0) + push);
  EXPECT_EQ(other.ask(1003), 0u);
  other.send(request(1009));
  EXPECT_EQ(other.read(8).substr(6), hex("f103")) << "the reply, no push before it";
}

TEST(ServicePush, ARefusedRegistrationGetsNone) {
  service::Policy policy;
  policy.scriptedStatus[1010] = 44;
  service::ServerOptions options;
  options.onRegister = {{7, "abc"}};
  RunningService running(policy, options);
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1010), 44u);
  EXPECT_EQ(client.ask(1003), 0u);
  EXPECT_TRUE(running.linesWith("push to").empty());
}

TEST(ServiceServer, AClientThatNeverReadsStallsNobodyAndIsClosed) {
  RunningService running;
  BytesClient deaf(running.name());
  BytesClient other(running.name());
  Bytes many;
  for (int i = 0; i < 200; ++i) many += request(1009);
  bool open = true;
  for (int i = 0; i < 1000 && open; ++i) {
    open = deaf.send(many);
    if (i % 10 == 0) {
      EXPECT_EQ(other.ask(1003), 0u);
    }
  }
  EXPECT_FALSE(open);
  EXPECT_TRUE(running.says("it does not read its replies"));
  EXPECT_EQ(other.ask(1003), 0u);
}

TEST(ServiceServer, RequestsOfAClientThatLeavesAtOnceAreStillServed) {
  RunningService running;
  BytesClient(running.name()).send(request(1008, hex("08 02 12 01 41")) + request(1009));
  EXPECT_TRUE(running.says("uiName=\"A\""));
  EXPECT_TRUE(running.says("resetScreenResolution"));
  BytesClient(running.name()).send(request(1009).substr(0, 20));
  EXPECT_TRUE(running.says("disconnected inside a request"));
}

TEST(ServiceServer, SaysWhatIsWrongWithANameItCannotListenOn) {
  RunningService running;
  const std::string longest = uniqueName() + std::string(107, 'n');
  const struct {
    std::string name;
    const char* problem;
  } cases[] = {
      {running.name(), "is in use"},
      {"", "is empty"},
      {longest.substr(0, 108), "has 108 bytes, at most 107 fit"},
      {longest.substr(0, 107), ""},
  };
  for (const auto& c : cases) {
    std::string problem;
    EXPECT_EQ(static_cast<bool>(service::listenOn(c.name, problem)), c.problem[0] == '\0') << c.problem;
    EXPECT_NE(problem.find(c.problem), std::string::npos) << problem;
  }
}

}  // namespace
