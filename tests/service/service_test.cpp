// The reference service: what it understands, does, answers and undoes, asked in plain bytes.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "service/effects/Preload.h"
#include "service/faults/Faults.h"
#include "service/wire/RequestReader.h"
#include "shared/Address.h"
#include "support/RunningService.h"

namespace {

using service::Policy;
using service::ServerOptions;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// The reply to a request() without a body.
Bytes answer(uint16_t funcid) {
  return reply(funcid, 0, "", 5, 1234567);
}

/// The body of 1002, 1004 and 1006, which look alike: a level in the one place is a thread in the other.
Bytes boost(std::initializer_list<int> levelOrTids, int timeoutMs = 0) {
  amc::RequestCPUCoreForThread message;
  message.set_scene(1);
  for (const int number : levelOrTids) message.add_bindtids(number);
  message.set_timeout(timeoutMs);
  message.set_action(1);
  return message.SerializeAsString();
}

TEST(ServiceRequests, EveryRequestIsReadFromItsBytesAndShownInOneLine) {
  const struct {
    uint16_t funcid;
    const char* body;
    const char* line;
  } cases[] = {
      {1001, "", "checkPermission pid="},
      {1002, "08 03 10 02 18 e8 07 20 05", "scene=3 level=2 timeoutms=1000 action=5"},
      {1004, "08 03 10 65 10 66 18 e8 07 20 05", "scene=3 bindtids=[101,102] timeout=1000 action=5"},
      {1005, "08 65 08 66", "cancelCpuCoreForThread"},
      {1006, "08 03 10 02 18 00 20 80 80 80 80 10", "scene=3 level=2 timeoutms=0 action=4294967296"},
      {1008, "08 02 12 04 41 0a 22 42", "level=2 uiName=\"A\\x0a\\x22B\""},
      {1010, "", "registerANRCallback pid="},
      {1011, "0a 02 2f 61 0a 02 2f 62", "files=2 [\"/a\", \"/b\"]"},
      {1011, "", "files=0 []"},
      {1013, "08 01 10 02 18 03 20 65 28 0a 30 07", "iolevel=3 bindtids=[101] timeout=10 action=7"},
      {1014, "08 01 10 00 18 01 20 65", "cancelcpu=1 cancelio=0 cancelthread=1 bindtids=[101]"},
      {1099, "ff", "unknownRequest pid="},
  };
  Policy scripted;  // so that nothing is done
  for (const auto& c : cases) scripted.scriptedStatus[c.funcid] = 40;
  ServerOptions options;
  options.onRegister = {{7, "not for a refused registration"}};
  RunningService running(scripted, options);
  BytesClient client(running.name());
  const std::string who = " pid=" + std::to_string(getpid()) + " uid=" + std::to_string(getuid()) + " tid=77";
  for (const auto& c : cases) {
    EXPECT_EQ(client.ask(c.funcid, hex(c.body)), 40u) << c.line;
    const auto lines = running.linesWith(c.line);
    ASSERT_EQ(lines.size(), 1u) << c.line;
    EXPECT_THAT(lines[0], AllOf(StartsWith(std::to_string(c.funcid) + " "), HasSubstr(who)));
  }
}

TEST(ServiceRequests, RequestsSplitAtEveryByteAreReadOnce) {
  const Bytes two = request(1002, boost({2}, 9)) + request(1003);
  for (size_t split = 0; split <= two.size(); ++split) {
    service::RequestReader reader;
    service::RequestPacket packet;
    std::string seen, problem;
    for (const Bytes& part : {two.substr(0, split), two.substr(split)}) {
      reader.append(reinterpret_cast<const uint8_t*>(part.data()), part.size());
      while (reader.next(packet, problem) == service::RequestReader::Result::PACKET) {
        seen += std::to_string(packet.funcid) + ":" + std::to_string(packet.body.size()) + " ";
      }
      seen += "| ";
    }
    const char* const wanted = split == two.size() ? "1002:8 1003:0 | | "
                               : split >= 40       ? "1002:8 | 1003:0 | "
                                                   : "| 1002:8 1003:0 | ";
    EXPECT_EQ(seen, wanted) << split;
  }
}

TEST(ServiceRequests, BadInputClosesThatClientOnlyAndWhatCameBeforeIsServed) {
  Bytes wrongMagic = request(1003), wrongVersion = request(1003), tooLong = request(1011);
  wrongMagic[0] = 'X';
  wrongVersion[4] = 5;
  tooLong.replace(8, 4, hex("01000001"));
  const std::pair<Bytes, const char*> cases[] = {
      {wrongMagic, "magic 0x48444358 instead of 0x48444352"},
      {wrongVersion, "header version 5 instead of 4"},
      {tooLong, "16777217 bytes is announced"},
      {request(1002), "the 0 body bytes of requestCpuHighFreq are not its message"},
      {request(1004, hex("08 03 10")), "the 3 body bytes of requestCpuCoreForThread are not its message"},
  };
  RunningService running;
  BytesClient bystander(running.name());
  for (const auto& [bytes, line] : cases) {
    BytesClient client(running.name());
    client.write(request(1009) + bytes + request(1003));
    EXPECT_EQ(client.read(1000), answer(1009)) << "the request before is answered, the one behind is not";
    EXPECT_FALSE(client.write(request(1003))) << line;
    EXPECT_EQ(running.linesWith(line).size(), 1u) << line;
    EXPECT_EQ(bystander.ask(1003), 0u);
  }
  BytesClient(running.name()).write(request(1008, hex("08 02 12 01 41")) + request(1009).substr(0, 20));
  EXPECT_TRUE(running.says("uiName=\"A\"") && running.says("disconnected inside a request"));
}

struct TemporaryFolder {
  TemporaryFolder() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
  ~TemporaryFolder() { std::filesystem::remove_all(path); }
  std::string write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(path + name).parent_path());
    std::ofstream(path + name) << text << "\n";
    return path + name;
  }
  std::string path = "/tmp/tarnbooster_test_XXXXXX";
};

/// A made-up /sys: CPUs 0 and 1 share one policy, as the cores of a cluster do, CPU 2 has its own, 3 has
/// none.
class ServiceFrequency : public testing::Test {
 protected:
  ServiceFrequency() {
    for (const std::string cpu : {"cpu0", "cpu2"}) {
      m_sys.write(kCpus + cpu + "/cpufreq/scaling_min_freq", cpu == "cpu0" ? "400000" : "900000");
      m_sys.write(kCpus + cpu + "/cpufreq/cpuinfo_min_freq", "300000");
      m_sys.write(kCpus + cpu + "/cpufreq/scaling_max_freq", "1800000");
    }
    m_sys.write(kCpus + "cpu3/online", "1");
    std::filesystem::create_directory_symlink("cpu0", m_sys.path + kCpus + "cpu1");
  }
  /// Those of CPUs 0 and 2.
  std::string floors() const {
    std::string first, second;
    std::ifstream(m_sys.path + kCpus + "cpu0/cpufreq/scaling_min_freq") >> first;
    std::ifstream(m_sys.path + kCpus + "cpu2/cpufreq/scaling_min_freq") >> second;
    return first + " " + second;
  }
  const std::string kCpus = "/devices/system/cpu/";
  const TemporaryFolder m_sys;
  RunningService m_running{Policy{{}, false, m_sys.path}};
  BytesClient m_client{m_running.name()}, m_other{m_running.name()};
};

TEST_F(ServiceFrequency, TheStrongestBoostRulesAndTheLastOneToEndRestores) {
  EXPECT_EQ(m_client.ask(1002, boost({1})), 0u);
  EXPECT_EQ(floors(), "800000 900000") << "never lowered";
  EXPECT_EQ(m_client.ask(1002, boost({9})), 0u);
  EXPECT_EQ(floors(), "1800000 1800000");
  EXPECT_EQ(m_other.ask(1002, boost({2})), 0u);
  EXPECT_EQ(floors(), "1800000 1800000") << "a weaker boost beside a stronger one changes nothing";
  EXPECT_EQ(m_client.ask(1003), 0u);
  EXPECT_EQ(floors(), "1300000 1300000") << "the other client's still holds";
  EXPECT_EQ(m_client.ask(1002, boost({3}, 1)), 0u);
  EXPECT_TRUE(m_running.says("its time is up"));
  EXPECT_EQ(floors(), "1300000 1300000");
  EXPECT_EQ(m_other.ask(1002, boost({0})), service::Status::BAD_ARGUMENT);
  m_other.hangUp();
  EXPECT_TRUE(eventually([&] { return floors() == "400000 900000"; })) << floors();
  EXPECT_EQ(m_client.ask(1002, boost({1})), 0u);
  m_sys.write(kCpus + "cpu2/cpufreq/scaling_min_freq", "600000");
  for (const char* const limit : {"min", "max"}) {  // a cap takes the floor down with it
    m_sys.write(kCpus + "cpu0/cpufreq/scaling_" + limit + "_freq", "500000");
  }
  m_running.stop();
  EXPECT_EQ(floors(), "400000 600000") << "what somebody else has moved is left alone, a capped floor is not";
}

TEST(ServiceCores, AThreadIsBoundToItsHighestCpuAndGetsItsOwnBack) {
  const ParkedThread thread;
  const auto before = thread.cpus();
  const std::string bound = before.substr(before.find_last_of("-,") + 1);
  if (bound == before) GTEST_SKIP() << "this process may use one CPU only: nothing would change";
  const auto isBack = [&] { return thread.cpus() == before; };
  RunningService running;
  BytesClient client(running.name()), other(running.name());
  EXPECT_EQ(client.ask(1004, boost({thread.tid}, 1)), 0u);
  EXPECT_TRUE(running.says("-> " + bound + ")")) << "it was bound for a moment";
  EXPECT_TRUE(eventually(isBack)) << "its time is up";

  amc::CancelCPUCoreForThread cancel;
  cancel.add_bindtids(thread.tid);
  EXPECT_EQ(client.ask(1004, boost({thread.tid})), 0u);
  EXPECT_EQ(other.ask(1004, boost({thread.tid})), 0u);
  EXPECT_EQ(client.ask(1005, cancel.SerializeAsString()), 0u);
  EXPECT_EQ(thread.cpus(), bound) << "the other client still holds it";
  EXPECT_EQ(other.ask(1005, cancel.SerializeAsString()), 0u);
  EXPECT_TRUE(isBack()) << "cancelled";

  EXPECT_EQ(other.ask(1004, boost({thread.tid})), 0u);
  other.hangUp();
  EXPECT_TRUE(eventually(isBack)) << "disconnected";

  amc::RequestUnifyCPUIOThreadCore unified;
  ASSERT_TRUE(unified.ParseFromString(hex("08 01 10 00 18 00 28 00 30 01")));
  unified.add_bindtids(thread.tid);
  EXPECT_EQ(client.ask(1013, unified.SerializeAsString()), 0u);
  EXPECT_EQ(client.ask(1005, cancel.SerializeAsString()), 0u);      // of another request
  EXPECT_EQ(client.ask(1014, hex("08 01 10 01 18 00")), 0u);        // its other parts
  EXPECT_EQ(client.ask(1014, hex("08 00 10 00 18 01 20 01")), 0u);  // another thread
  EXPECT_EQ(thread.cpus(), bound);
  EXPECT_EQ(client.ask(1014, hex("08 00 10 00 18 01")), 0u);  // all threads
  EXPECT_TRUE(isBack());

  EXPECT_EQ(client.ask(1004, boost({thread.tid})), 0u);
  running.stop();
  EXPECT_TRUE(isBack()) << "the service has ended";
}

/// Moves the thread as somebody else would.
void moveTo(pid_t tid, int cpu) {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  CPU_SET(cpu, &cpus);
  EXPECT_EQ(sched_setaffinity(tid, sizeof(cpus), &cpus), 0);
}

TEST(ServiceCores, AThreadThatOthersHaveMovedIsLeftThere) {
  const ParkedThread thread;
  const std::string first = thread.cpus().substr(0, thread.cpus().find_first_of("-,"));
  if (thread.cpus() == first) GTEST_SKIP() << "NOT TESTED: this process may use one CPU only";
  RunningService running;
  EXPECT_EQ(BytesClient(running.name()).ask(1004, boost({thread.tid}, 0)), 0u);
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1004, boost({thread.tid})), 0u);
  moveTo(thread.tid, std::stoi(first));
  client.hangUp();
  EXPECT_TRUE(running.says("by others, left so"));
  EXPECT_EQ(thread.cpus(), first);
}

TEST(ServiceServer, WantOfDescriptorsIsWaitedOut) {
  const ParkedThread thread;
  const std::string before = thread.cpus();
  RunningService running;
  BytesClient client(running.name()), bystander(running.name());
  EXPECT_EQ(client.ask(1004, boost({thread.tid})), 0u);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  BytesClient late(running.name(), [&] {
    const rlimit none{3, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  });
  client.hangUp();
  EXPECT_TRUE(running.says("to be put back as soon as that can be done"));
  EXPECT_TRUE(running.says("cannot accept a client now"));
  for (int i = 0; i < 50; ++i) EXPECT_EQ(bystander.ask(1009), 0u);
  EXPECT_LT(running.linesWith("cannot accept a client now").size(), 25u);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(late.ask(1009), 0u);
  EXPECT_TRUE(eventually([&] { return thread.cpus() == before; }));
}

TEST(ServiceServer, ClientsAndBoostsOfAUserAreBoundedAndReclaimed) {
  const ParkedThread thread;
  ServerOptions options;
  options.clientLimits.perUser = 3;
  service::BoostLimits limits;
  limits.perUser = 2;
  RunningService running({}, options, limits);
  BytesClient first(running.name()), second(running.name());
  const uint32_t wanted[] = {0, 0, service::Status::TOO_MANY_BOOSTS};
  for (const uint32_t status : wanted) EXPECT_EQ(first.ask(1004, boost({thread.tid})), status);
  EXPECT_EQ(second.ask(1004, boost({thread.tid})), service::Status::TOO_MANY_BOOSTS);
  BytesClient third(running.name()), fourth(running.name());
  EXPECT_EQ(fourth.read(1), "") << "turned away";
  EXPECT_TRUE(running.says("3 clients of its user are served"));
  first.hangUp();
  EXPECT_TRUE(running.says("disconnected"));
  EXPECT_EQ(second.ask(1004, boost({thread.tid}, 1)), 0u) << "its boosts are free again";
  EXPECT_TRUE(running.says("its time is up"));
  for (const uint32_t status : wanted) EXPECT_EQ(second.ask(1004, boost({thread.tid})), status);
  EXPECT_EQ(BytesClient(running.name()).ask(1009), 0u) << "and its place";
}

TEST(ServiceServer, UnfinishedRequestsShareABudgetAndWhoTakesMostGivesWay) {
  ServerOptions options;
  options.clientLimits.requestBytes = 3 << 20;
  RunningService running({}, options);
  const Bytes most = request(1011, Bytes(4 << 20, '\n')).substr(0, 2 << 20), half = most.substr(0, 1 << 20);
  BytesClient greedy(running.name()), modest(running.name()), small(running.name());
  greedy.write(most);
  modest.write(half);
  small.write(request(1009) + half.substr(0, half.size() / 4));
  EXPECT_EQ(small.read(32), answer(1009));
  modest.write(half.substr(0, half.size() / 2));
  EXPECT_EQ(greedy.read(1), "");
  EXPECT_EQ(running.linesWith("takes memory that others need").size(), 1u);
  EXPECT_EQ(BytesClient(running.name()).ask(1003), 0u);
}

TEST(ServiceServer, ABoostWithoutAProcessNeedsAnEnd) {
  const TemporaryFolder sys;
  const std::string cpu = "/devices/system/cpu/cpu0/cpufreq/";
  for (const char* const name : {"scaling_min_freq", "cpuinfo_min_freq"}) sys.write(cpu + name, "3");
  sys.write(cpu + "scaling_max_freq", "9");
  const service::Log log(service::Priority::DEBUG, [](service::Priority, const std::string&) {});
  service::Dispatcher dispatcher({{}, false, sys.path}, log);
  const std::pair<int, uint32_t> cases[] = {
      {0, service::Status::BAD_ARGUMENT}, {600'001, service::Status::BAD_ARGUMENT}, {600'000, 0}};
  for (const auto& [timeoutMs, status] : cases) {
    service::Request request;
    amc::RequestCPUHighFreq message;
    message.set_level(1);
    message.set_timeoutms(timeoutMs);
    request.funcid = 1002;
    request.message = message;
    EXPECT_EQ(dispatcher.handle(request, service::Requester(), 1, 77)->status, status) << timeoutMs;
  }
  EXPECT_EQ(dispatcher.boosts().nextExpiry(), 600'077);
}

TEST(ServiceServer, AConnectionThatHasChangedHandsIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "NOT TESTED: only root can give up rights";
  int names[2], results[2];
  ASSERT_EQ(pipe(names) + pipe(results), 0);
  const Bytes boosted = boost({1});
  const pid_t child = fork();  // before there is any thread
  if (child == 0) {
    char name[108] = "";
    if (read(names[0], name, 107) != 107) _exit(1);
    BytesClient own(name);
    const uint32_t before = own.ask(1006, boosted);
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) _exit(1);
    const uint32_t statuses[] = {before, own.ask(1006, boosted), own.ask(1011, hex("0a 01 2f")),
                                 own.ask(1003)};
    _exit(write(results[1], statuses, sizeof(statuses)) == sizeof(statuses) ? 0 : 1);
  }
  RunningService running;
  ASSERT_EQ(write(names[1], running.name().data(), 107), 107);
  uint32_t statuses[4] = {};
  EXPECT_EQ(read(results[0], statuses, sizeof(statuses)), static_cast<ssize_t>(sizeof(statuses)));
  EXPECT_THAT(statuses,
              testing::ElementsAre(0, service::Status::NOT_PERMITTED, service::Status::NOT_PERMITTED, 0));
  waitpid(child, nullptr, 0);
  for (const int fd : {names[0], names[1], results[0], results[1]}) close(fd);
}

TEST(ServiceUdp, APeerIsKnownAsLongAsItIsHeardOf) {
  ServerOptions options;
  options.udpLimits.ageMs = 1000;
  options.repeat = {{{9, "again"}, 100, 0}};
  RunningService running({}, options);
  sockaddr_in to{};
  ASSERT_TRUE(shared::parseAddress(running.udpAddress(), to));
  Endpoint silent(500), registered(500);
  silent.queue(to, 1, request(1009));
  registered.queue(to, 1, request(1010));
  EXPECT_TRUE(running.says("it has been silent for long"));
  EXPECT_TRUE(registered.saw(UDP_EVENT_DATA, 18)) << "what it acknowledges says that it is there";
  EXPECT_EQ(running.linesWith("forgot").size(), 1u);
}

TEST(ServiceUdp, AnAddressThatNeverAcknowledgesGetsFewDatagramsAndGivesItsPlaceFirst) {
  ServerOptions options;
  options.udpTiming.intervalMs = 300;
  options.udpLimits.peers = 2;
  RunningService running({}, options);
  sockaddr_in to{};
  ASSERT_TRUE(shared::parseAddress(running.udpAddress(), to));
  Endpoint honest(500);
  honest.queue(to, 1, request(1009));
  ASSERT_TRUE(honest.saw(UDP_EVENT_DATA));
  PlainPeer forged[2];
  for (PlainPeer& peer : forged) {
    peer.send(to, datagram(PACKET_SYN, 100000));
    for (uint32_t i = 1; i <= 5; ++i)
      peer.send(to, datagram(PACKET_DATA, 100000 + i, 0, 32, request(1009), i));
    EXPECT_TRUE(running.says("1009 resetScreenResolution udp=" + addressText(peer.address), 5));
  }
  EXPECT_TRUE(running.says("forgot udp=" + addressText(forged[0].address) + ": others need its place"));
  EXPECT_TRUE(running.says("forgot udp=" + addressText(forged[1].address) + ": it does not acknowledge"));
  int datagrams = 0;
  while (!forged[1].receive(200).empty()) ++datagrams;
  EXPECT_LE(datagrams, 6 + 6) << "its own acknowledged, one reply sent three times";
  EXPECT_EQ(running.linesWith("forgot udp=" + addressText(honest.localAddress())).size(), 0u);
}

TEST(ServiceCores, OnlyThreadsOfTheClientAreBoundAndNotWithoutEnd) {
  const ParkedThread thread;
  const Bytes bind = boost({thread.tid});
  RunningService running;
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1004, boost({1})), service::Status::NOT_YOURS);
  EXPECT_EQ(client.ask(1004, boost({-5, 0})), service::Status::NOT_YOURS);
  EXPECT_EQ(client.ask(1004, boost({})), service::Status::BAD_ARGUMENT);
  EXPECT_EQ(client.ask(1004, boost({thread.tid}, -1)), service::Status::BAD_ARGUMENT);
  EXPECT_EQ(client.ask(1004, boost({1, thread.tid})), service::Status::PARTLY);
  for (size_t i = 1; i < service::BoostLimits().perHolder; ++i) ASSERT_EQ(client.ask(1004, bind), 0u);
  EXPECT_EQ(client.ask(1004, bind), service::Status::TOO_MANY_BOOSTS);
  EXPECT_EQ(BytesClient(running.name()).ask(1004, bind), 0u) << "another client still gets its";
  amc::CancelCPUCoreForThread cancel;
  cancel.add_bindtids(thread.tid);
  EXPECT_EQ(client.ask(1005, cancel.SerializeAsString()), 0u);
  EXPECT_EQ(client.ask(1004, bind), 0u) << "what has ended no longer counts";
}

TEST(ServiceIo, PriorityOfTheClientsThreadsIsRaisedAndPutBack) {
  const ParkedThread thread;
  const auto before = thread.ioPriority();
  RunningService running(Policy{{}, false, "/nowhere"});
  BytesClient client(running.name());
  const uint32_t status = client.ask(1006, boost({2}));
  if (status != 0) GTEST_SKIP() << "this system refuses I/O priorities, status " << status;
  EXPECT_EQ(thread.ioPriority(), 2 << 13 | 1);
  EXPECT_EQ(client.ask(1006, boost({3})), 0u);
  EXPECT_EQ(thread.ioPriority(), 2 << 13 | 0);
  const ParkedThread born;
  EXPECT_EQ(born.ioPriority(), 2 << 13 | 0) << "inherited";
  EXPECT_EQ(client.ask(1006, boost({3})), 0u);
  EXPECT_EQ(client.ask(1007), 0u);
  EXPECT_EQ(thread.ioPriority(), before);
  EXPECT_EQ(born.ioPriority(), before);
  EXPECT_EQ(client.ask(1013, hex("08 01 10 02 18 01 28 00 30 07")), service::Status::PARTLY) << "no CPU part";
}

TEST(ServicePreload, ReadsRegularFilesAheadWithTheClientsRightsAndOpensNothingElse) {
  const TemporaryFolder folder;
  const std::string file = folder.write("/file", "text"), fifo = folder.path + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::pair<std::vector<std::string>, uint32_t> cases[] = {
      {{}, service::Status::DONE},
      {{file, file}, service::Status::DONE},
      {{fifo, "/dev/zero", "file", ""}, service::Status::BAD_ARGUMENT},  // a fifo's open would wait
      {{folder.path + "/none"}, service::Status::FAILED},
      {{folder.path + "/none", file}, service::Status::PARTLY},
      {std::vector<std::string>(service::kMaxFiles + 1, file), service::Status::PARTLY},
  };
  RunningService running;
  BytesClient client(running.name());
  amc::RequestBootPreLoadResource message;
  for (const auto& [files, status] : cases) {
    message.clear_files();
    for (const std::string& name : files) message.add_files(name);
    EXPECT_EQ(client.ask(1011, message.SerializeAsString()), status) << files.size();
  }
  if (geteuid() != 0) GTEST_SKIP() << "only root sees more than its clients";
  // A thread keeps the eyes that it has taken on.
  const auto asNobody = [&] {
    return std::async(std::launch::async, [&] { return service::preloadFiles({file}, 0, {}).status; }).get();
  };
  EXPECT_EQ(asNobody(), service::Status::NOT_PERMITTED);
  ASSERT_EQ(chmod(folder.path.c_str(), 0755) + chmod(file.c_str(), 0644), 0);
  EXPECT_EQ(asNobody(), service::Status::DONE);
}

TEST(ServiceRequests, TooManyFileNamesAreCountedAndNotKept) {
  Bytes body;
  for (int i = 0; i < 100'000; ++i) body += hex("0a 00");
  RunningService running;
  BytesClient client(running.name());
  EXPECT_EQ(client.ask(1011, body), service::Status::BAD_ARGUMENT);
  EXPECT_TRUE(running.says("files=100000 [\"\", "));
  EXPECT_FALSE(client.write(request(1011, "\x0b")) && client.write(request(1009)) && client.read(1) != "");
}

TEST(ServiceFaults, EachStrikesWhenItsScriptSays) {
  const Bytes one = answer(1009), push = reply(1010, 0, hex("08 01 12 05") + "first"),
              second = reply(1010, 0, hex("08 02 12 06") + "second");
  const auto with = [&](size_t at, const Bytes& bytes) {
    return Bytes(one).replace(at, bytes.size(), bytes);
  };
  // What comes for three requests, until the service closes or has answered a fourth (1001).
  const std::pair<const char*, Bytes> cases[] = {
      {"no-answer", ""},
      {"no-answer,every=2", one + one},
      {"no-answer,after=1", one},
      {"no-answer,only=1003", one + one + one},
      {"no-answer,from=3600000", one + one + one},
      {"twice,after=2", one + one + one + one},
      {"wrong-timestamp,every=3", one + one + with(24, hex("06"))},
      {"wrong-funcid,every=3", one + one + with(6, hex("f2"))},
      {"bad-magic,every=3", one + one + with(0, "S")},
      {"huge-length,every=3", one + one + with(12, hex("ffffffff"))},
      {"cut-header=5,every=3", one + one + one.substr(0, 5)},
      {"two-bodies,every=3", one + one + one + push + second},
      {"close,after=1", one},
      {"half-close,after=1", one + one},
      {"stop-reading,after=1", one + one},
      {"lose-coalesced", one},
      {"delay=1,after=1", one + one + one},
  };
  for (const auto& [script, wanted] : cases) {
    ServerOptions options;
    std::string problem;
    ASSERT_TRUE(service::parseFault(script, options.faults.emplace_back(), problem)) << problem;
    options.faults[0].only = options.faults[0].only < 0 ? 1009 : options.faults[0].only;
    RunningService running({}, options);
    BytesClient client(running.name());
    client.write(request(1009) + request(1009) + request(1009));
    const auto startsWith = [&](const char* text) { return Bytes(script).find(text) == 0; };
    const bool goesOn = wanted.size() >= 64 + 5 || startsWith("no-answer");
    const bool ends = startsWith("close") || startsWith("half-close");
    if (goesOn) client.write(request(1001));
    EXPECT_EQ(client.read(wanted.size() + (goesOn || ends ? 32 : 0)), wanted + (goesOn ? answer(1001) : ""))
        << script;
  }
  for (const char* const bad :
       {"", "slow", "delay=x", "delay=-1", "close=3", "close,every=0", "close,often=1"}) {
    service::Fault fault;
    std::string problem;
    EXPECT_FALSE(service::parseFault(bad, fault, problem)) << bad;
    EXPECT_NE(problem, "");
  }
}

TEST(ServicePush, OnlyRegisteredClientsGetThemWithAnEmptyReplyBetweenTwoBodies) {
  ServerOptions options;
  options.onRegister = {{7, "abc"}, {-1, ""}};
  options.repeat = {{{9, "d"}, 20, 0}};
  RunningService running({}, options);
  BytesClient client(running.name()), other(running.name());
  client.write(request(1010));
  const Bytes seven = hex("08 07 12 03 616263"), nine = hex("08 09 12 01 64");
  const Bytes minusOne = hex("08 ff ff ff ff ff ff ff ff ff 01 12 00");
  const Bytes wanted = answer(1010) + reply(1010, 0, seven) + reply(1010, 0) + reply(1010, 0, minusOne) +
                       reply(1010, 0) + reply(1010, 0, nine) + reply(1010, 0) + reply(1010, 0, nine);
  EXPECT_EQ(client.read(wanted.size()), wanted);
  other.write(request(1009));
  EXPECT_EQ(other.read(32), answer(1009)) << "no push before it";
}

TEST(ServiceServer, AClientThatNeverReadsStallsNobodyAndIsClosed) {
  RunningService running;
  BytesClient deaf(running.name()), other(running.name());
  Bytes many;
  for (int i = 0; i < 2000; ++i) many += request(1009);
  bool open = true;
  for (int i = 0; i < 100 && open; ++i) {
    open = deaf.write(many);
    EXPECT_EQ(other.ask(1003), 0u);
  }
  EXPECT_FALSE(open);
  EXPECT_TRUE(running.says("it does not read its replies"));
}

}  // namespace
