// The reference service: what it does, bounds and undoes, asked in plain bytes. How it reads and answers is
// tested by its fuzzer and by the cases of `tarnbooster check`, all of which it passes.
#include <gmock/gmock.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>

#include "service/clients/SocketPort.h"
#include "service/clients/UdpPort.h"
#include "service/effects/Preload.h"
#include "service/effects/Recorded.h"
#include "service/faults/Faults.h"
#include "shared/AbstractSocket.h"
#include "shared/Address.h"
#include "support/RunningService.h"

namespace {

using service::Policy;
using service::ServerOptions;

const bool g_isSet = (g_patience = std::chrono::seconds(5), true);

/// The reply to a request() without a body.
Bytes answer(uint16_t funcid, int64_t timestamp = 5) {
  return reply(funcid, 0, "", timestamp, 1234567);
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

TEST(ServiceFrequency, TheStrongestBoostRulesAndTheLastOneToEndRestores) {
  // A made-up /sys: CPUs 0 and 1 share one policy, as the cores of a cluster do, CPU 2 has its own, 3 none.
  const TemporaryFolder sys;
  const std::string cpus = "/devices/system/cpu/", floorOf = "/cpufreq/scaling_min_freq";
  for (const std::string cpu : {"cpu0", "cpu2"}) {
    sys.write(cpus + cpu + floorOf, cpu == "cpu0" ? "400000" : "900000");
    sys.write(cpus + cpu + "/cpufreq/cpuinfo_min_freq", "300000");
    sys.write(cpus + cpu + "/cpufreq/scaling_max_freq", "1800000");
  }
  sys.write(cpus + "cpu3/online", "1");
  std::filesystem::create_directory_symlink("cpu0", sys.path + cpus + "cpu1");
  const auto floors = [&] {
    std::string first, second;
    std::ifstream(sys.path + cpus + "cpu0" + floorOf) >> first;
    std::ifstream(sys.path + cpus + "cpu2" + floorOf) >> second;
    return first + " " + second;
  };
  ServerOptions options;
  options.udpLimits.peers = 1;
  RunningService running(Policy{{}, false, sys.path}, options);
  BytesClient client(running.name()), other(running.name());
  EXPECT_EQ(client.ask(1002, boost({1})), 0u);
  EXPECT_EQ(floors(), "800000 900000") << "never lowered";
  EXPECT_EQ(client.ask(1002, boost({9})), 0u);
  EXPECT_EQ(floors(), "1800000 1800000");
  EXPECT_EQ(other.ask(1002, boost({2})), 0u);
  EXPECT_EQ(floors(), "1800000 1800000") << "a weaker boost beside a stronger one changes nothing";
  EXPECT_EQ(client.ask(1003), 0u);
  EXPECT_EQ(floors(), "1300000 1300000") << "the other client's still holds";
  EXPECT_EQ(client.ask(1002, boost({3}, 1)), 0u);
  EXPECT_TRUE(running.says("its time is up"));
  EXPECT_EQ(floors(), "1300000 1300000");
  sockaddr_in to{};
  ASSERT_TRUE(shared::parseAddress(running.udpAddress(), to));
  Endpoint peer, stranger;
  peer.queue(to, 1, request(1002, boost({3}, 100)));
  EXPECT_TRUE(running.says("its time is up", 2));
  EXPECT_EQ(floors(), "1300000 1300000");
  peer.queue(to, 2, request(1002, boost({3}, 600000)));
  EXPECT_TRUE(eventually([&] { return floors() == "1800000 1800000"; }));
  stranger.queue(to, 1, request(1009));
  EXPECT_TRUE(running.says("forgot udp=" + addressText(peer.localAddress())));
  peer.queue(to, 3, request(1003));
  EXPECT_TRUE(eventually([&] { return floors() == "1300000 1300000"; })) << "the forgotten can cancel";
  EXPECT_EQ(other.ask(1002, boost({0})), service::Status::BAD_ARGUMENT);
  other.hangUp();
  EXPECT_TRUE(eventually([&] { return floors() == "400000 900000"; })) << floors();
  EXPECT_EQ(client.ask(1002, boost({1})), 0u);
  sys.write(cpus + "cpu2/cpufreq/scaling_min_freq", "600000");
  for (const char* const limit : {"min", "max"}) {  // a cap takes the floor down with it
    sys.write(cpus + "cpu0/cpufreq/scaling_" + limit + "_freq", "500000");
  }
  running.stop();
  EXPECT_EQ(floors(), "400000 600000") << "what somebody else has moved is left alone, a capped floor is not";

  // A service that was killed between writing its record and making its floor higher.
  for (const char* const floor : {"800000", "1800000", "1000000"}) {
    sys.write(cpus + "cpu2" + floorOf, floor);
    service::settingOfRecord(
        R"({"what":"frequency","cpus":[{"cpu":2,"original":900000,"applied":800000,"wanted":1800000}]})",
        sys.path)
        ->restore();
    EXPECT_EQ(floors(), std::string("400000 ") + (floor[0] == '1' && floor[1] == '0' ? floor : "900000"));
  }
}

TEST(ServiceCores, AThreadGetsItsOwnCpusBackUnlessOthersHaveMovedIt) {
  const ParkedThread thread;
  const auto before = thread.cpus();
  const std::string bound = before.substr(before.find_last_of("-,") + 1);
  if (bound == before) GTEST_SKIP() << "NOT TESTED: how threads are bound and put back, with one CPU only";
  const Bytes bind = boost({thread.tid});
  RunningService running;
  BytesClient client(running.name());
  amc::CancelCPUCoreForThread cancel;
  cancel.add_bindtids(thread.tid);
  amc::RequestUnifyCPUIOThreadCore unified;
  ASSERT_TRUE(unified.ParseFromString(hex("08 01 10 00 18 00 28 00 30 01")));
  unified.add_bindtids(thread.tid);
  EXPECT_EQ(client.ask(1013, unified.SerializeAsString()), 0u);
  EXPECT_EQ(client.ask(1005, cancel.SerializeAsString()), 0u);      // of another request
  EXPECT_EQ(client.ask(1014, hex("08 01 10 01 18 00")), 0u);        // its other parts
  EXPECT_EQ(client.ask(1014, hex("08 00 10 00 18 01 20 01")), 0u);  // another thread
  EXPECT_EQ(thread.cpus(), bound);
  EXPECT_EQ(client.ask(1014, hex("08 00 10 00 18 01")), 0u);  // all threads
  EXPECT_EQ(thread.cpus(), before);

  EXPECT_EQ(client.ask(1004, bind), 0u);
  service::settingOfRecord(R"({"what":"affinity","pid":)" + std::to_string(getpid()) + R"(,"tid":)" +
                               std::to_string(thread.tid) + R"(,"started":1,"original":")" + before +
                               R"(","applied":")" + bound + "\"}",
                           "")
      ->restore();
  EXPECT_EQ(thread.cpus(), bound) << "another thread with this number";
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(std::stoi(before), &first);
  EXPECT_EQ(sched_setaffinity(thread.tid, sizeof(first), &first), 0);
  client.hangUp();
  EXPECT_TRUE(running.says("by others, left so"));
  EXPECT_EQ(thread.cpus(), std::to_string(std::stoi(before)));
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
  BytesClient unseen(running.name(), [&] {  // enough to accept it, too few to look at it
    const int next = dup(0);
    close(next);
    const rlimit one{static_cast<rlim_t>(next) + 1, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &one);
  });
  EXPECT_TRUE(running.says("cannot look at a client now"));
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(unseen.ask(1004, boost({thread.tid})), 0u);
}

TEST(ServiceServer, AtTheEndWhatCannotBePutBackIsTriedThreeTimesMore) {
  struct Stubborn : service::Setting {
    explicit Stubborn(int& count) : tries(count) {}
    std::string key() const override { return "stubborn"; }
    service::Outcome prepare(int) override { return {}; }
    service::Outcome apply(int) override { return {}; }
    service::Outcome restore() override { return {service::Status::FAILED, "", ++tries < 4}; }
    nlohmann::json record() const override { return {}; }
    int& tries;
  };
  int tries = 0;
  const service::Log log(service::Priority::WARNING, [](service::Priority, const std::string&) {});
  std::optional<service::Boosts> boosts(std::in_place, log);
  boosts->add({}, std::make_unique<Stubborn>(tries));
  boosts.reset();
  EXPECT_EQ(tries, 4);
}

TEST(ServiceServer, ClientsAndBoostsAreBoundedAndReclaimed) {
  const ParkedThread thread;
  const Bytes bind = boost({thread.tid});
  ServerOptions options;
  options.clientLimits.perUser = 3;
  service::BoostLimits limits;
  limits.perHolder = 2;
  limits.perUser = 3;
  RunningService running({}, options, limits);
  BytesClient first(running.name()), second(running.name()), third(running.name()), fourth(running.name());
  EXPECT_EQ(fourth.read(1), "") << "turned away";
  EXPECT_TRUE(running.says("3 clients of its user are served"));
  const auto full = service::Status::TOO_MANY_BOOSTS;
  const struct {
    BytesClient& client;
    Bytes body;
    uint32_t status;
  } cases[] = {
      {first, boost({1}), service::Status::NOT_YOURS},
      {first, boost({-5, 0}), service::Status::NOT_YOURS},
      {first, boost({}), service::Status::BAD_ARGUMENT},
      {first, boost({thread.tid}, -1), service::Status::BAD_ARGUMENT},
      {first, boost({1, thread.tid}), service::Status::PARTLY},
      {first, bind, 0},
      {first, bind, full},  // a client's
      {second, bind, 0},
      {second, bind, full},  // a user's
  };
  for (const auto& c : cases) EXPECT_EQ(c.client.ask(1004, c.body), c.status) << &c - cases;
  amc::CancelCPUCoreForThread cancel;
  cancel.add_bindtids(thread.tid);
  EXPECT_EQ(first.ask(1005, cancel.SerializeAsString()), 0u);
  EXPECT_EQ(first.ask(1004, boost({thread.tid}, 1)), 0u) << "what has ended no longer counts";
  EXPECT_TRUE(running.says("its time is up"));
  for (const uint32_t status : {0u, 0u, uint32_t{full}}) EXPECT_EQ(first.ask(1004, bind), status);
  first.hangUp();
  EXPECT_TRUE(running.says("disconnected"));
  EXPECT_EQ(second.ask(1004, bind), 0u) << "its boosts are free again";
  EXPECT_EQ(BytesClient(running.name()).ask(1009), 0u) << "and its place";
}

TEST(ServiceServer, OnlyWhoIsAllowedIsLetIn) {
  std::vector<gid_t> before(64);
  before.resize(std::max(getgroups(64, before.data()), 0));
  const gid_t group = getgid() + 1;
  // Root can; the emulator does not tell the groups of the other end.
  const bool joined = getenv("TARN_EMULATED") == nullptr && setgroups(1, &group) == 0;
  const struct {
    service::Access access;
    bool letIn;
  } rows[] = {
      {{{getuid()}, {}}, true},
      {{{getuid() + 1}, {}}, false},
      {{{getuid() + 1}, {getgid()}}, true},
      {{{}, {group}}, joined},
  };
  for (const auto& row : rows) {
    ServerOptions options;
    options.access = row.access;
    RunningService running({}, options);
    EXPECT_EQ(BytesClient(running.name()).ask(1001), row.letIn ? 0 : UINT32_MAX) << &row - rows;
  }
  setgroups(before.size(), before.data());
}

/// What a port asks of its server.
struct Handler : service::ClientHandler {
  bool handle(service::Client& client, service::Request&& request, int64_t) override {
    ++handled;
    asker = &client;
    client.setBusy(isBusy);
    for (int i = 0; i < replies; ++i) client.answer(request, 0);
    return true;
  }
  void gone(const service::Client&) override {}
  bool holdsBoosts(const service::Client& client) const override { return client.requester().id == holder; }
  bool isBusy = false;
  size_t handled = 0;
  int replies = 0;
  uint64_t holder = 0;
  service::Client* asker = nullptr;
};

TEST(ServiceServer, WhoIsIdleForLongGivesItsPlaceAndWhoHasEndedIsNotWaitedForForEver) {
  Handler handler;
  service::Poller poller;
  service::Faults noFaults;
  const service::Log log(service::Priority::WARNING, [](service::Priority, const std::string&) {});
  service::SocketPort port(handler, poller, log, {3, 64, 1 << 20}, {}, noFaults, 1, 11);
  const std::string name = uniqueName();
  std::string problem;
  ASSERT_TRUE(port.listen(shared::listenOn(name, problem))) << problem;
  std::vector<std::unique_ptr<BytesClient>> clients;
  const auto connect = [&](int64_t now) {
    clients.push_back(std::make_unique<BytesClient>(name));
    port.accept(now);
  };
  handler.holder = 12;
  for (const int64_t now : {2, 0, 1}) connect(now);  // 11 to 13
  connect(service::kIdleMs);
  EXPECT_EQ(port.find(14), nullptr) << "turned away: nobody is idle but who holds a boost";
  connect(service::kIdleMs + 2);
  EXPECT_EQ(port.find(13), nullptr) << "the others were heard later, or hold a boost";
  EXPECT_NE(port.find(15), nullptr);
  handler.replies = 10'000;
  clients[0]->write(request(1003));
  clients[0]->finish();
  for (int i = 0; i < 2; ++i) port.serve(11, EPOLLIN, 100'000);
  port.goOn(100'000 + service::kLingerMs - 1);
  EXPECT_NE(port.find(11), nullptr);
  port.goOn(100'000 + service::kLingerMs);
  EXPECT_EQ(port.find(11), nullptr) << "it has not taken its replies";
}

TEST(ServiceServer, WhoTakesMostMemoryOrNeverReadsGivesWay) {
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
  BytesClient deaf(running.name()), other(running.name());
  Bytes many;
  for (int i = 0; i < 2000; ++i) many += request(1009);
  for (int i = 0; i < 100 && deaf.write(many); ++i) EXPECT_EQ(other.ask(1003), 0u);
  EXPECT_TRUE(running.says("it does not read its replies"));
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
                                 own.ask(1012), own.ask(1003)};
    _exit(write(results[1], statuses, sizeof(statuses)) == sizeof(statuses) ? 0 : 1);
  }
  RunningService running(Policy{{}, true});
  ASSERT_EQ(write(names[1], running.name().data(), 107), 107);
  uint32_t statuses[5] = {};
  EXPECT_EQ(read(results[0], statuses, sizeof(statuses)), static_cast<ssize_t>(sizeof(statuses)));
  EXPECT_THAT(statuses,
              testing::ElementsAre(0, service::Status::NOT_PERMITTED, service::Status::NOT_PERMITTED,
                                   service::Status::NOT_PERMITTED, 0));
  waitpid(child, nullptr, 0);
  for (const int fd : {names[0], names[1], results[0], results[1]}) close(fd);
}

TEST(ServiceUdp, WhatWaitsInTheMailboxIsBounded) {
  service::UdpMailbox box;
  const std::vector<uint8_t> half(service::kMaxMailboxBytes / 2);
  for (int i = 0; i < 2; ++i) box.put(loopback(), half.data(), half.size());
  EXPECT_TRUE(box.take(false).messages.empty());
  box.put(loopback(), half.data(), 1);
  pollfd ready{box.fd(), POLLIN, 0};
  EXPECT_EQ(poll(&ready, 1, 0), 1);
  const auto taken = box.take(true);
  EXPECT_TRUE(taken.messages.size() == 2 && taken.dropped == 1);
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

  // Who never acknowledges gets few datagrams, and gives its place first.
  options = {};
  options.udpTiming.intervalMs = 500;
  options.udpLimits.peers = 2;
  options.repeat = {{{9, "again"}, 100, 0}};
  RunningService small({}, options);
  ASSERT_TRUE(shared::parseAddress(small.udpAddress(), to));
  Endpoint honest(500);
  for (const int id : {1, 2}) honest.queue(to, id, request(1009));
  ASSERT_TRUE(honest.saw(UDP_EVENT_DATA, 2)) << "the second is sent when the first is acknowledged";
  PlainPeer forged[2];
  for (PlainPeer& peer : forged) {
    peer.send(to, datagram(PACKET_SYN, 100000));
    for (uint32_t i = 1; i <= 5; ++i)
      peer.send(to, datagram(PACKET_DATA, 100000 + i, 0, 32, request(1009), i));
    EXPECT_TRUE(small.says("1009 resetScreenResolution udp=" + addressText(peer.address), 5));
  }
  EXPECT_TRUE(small.says("forgot udp=" + addressText(forged[0].address) + ": others need its place"));
  EXPECT_TRUE(small.says("forgot udp=" + addressText(forged[1].address) + ": it does not acknowledge"));
  int datagrams = 0;
  while (!forged[1].receive(200).empty()) ++datagrams;
  EXPECT_LE(datagrams, 6 + 6) << "its own acknowledged, one reply sent three times";
  EXPECT_EQ(small.linesWith("forgot").size(), 2u);

  // Nor is anything kept for one who has acknowledged, registered and vanished.
  honest.queue(to, 3, request(1010));
  ASSERT_TRUE(honest.saw(UDP_EVENT_DATA, 4));
  honest.stop();
  EXPECT_TRUE(small.says("it does not acknowledge its replies", 2));
}

TEST(ServiceUdp, WhatIsNoRequestIsToldAndAReplyPortTakesNothing) {
  ServerOptions options;
  options.udpTiming.intervalMs = 10'000;  // this peer acknowledges nothing
  RunningService running({}, options);
  sockaddr_in to{};
  ASSERT_TRUE(shared::parseAddress(running.udpAddress(), to));
  PlainPeer peer, other;
  peer.send(to, datagram(PACKET_SYN, 100000));
  uint32_t sequence = 100000;
  const std::pair<Bytes, const char*> rows[] = {
      {"x", "a message of 1 bytes holds no request header"},
      {request(1003) + "x", "the header announces 0 body bytes, 1 follow"},
      {"x" + request(1003).substr(1), "no request header: magic 0x48444378 instead of 0x48444352"},
      {request(1002, "x"), "the 1 body bytes of requestCpuHighFreq are not its message"},
  };
  for (const auto& [bytes, problem] : rows) {
    ++sequence;
    peer.send(to, datagram(PACKET_DATA, sequence, 0, bytes.size(), bytes, sequence));
    EXPECT_TRUE(
        running.says("ignored a message of udp=" + addressText(peer.address) + ": bad input: " + problem));
  }
  peer.send(to, datagram(PACKET_DATA, sequence + 1, 0, 32, request(1009), sequence + 1));
  Bytes got = peer.receive();
  while (!got.empty() && peer.from.sin_port == to.sin_port) got = peer.receive();
  const sockaddr_in port = peer.from;
  // Which of these datagrams it acknowledges, up to number 7.
  const auto acknowledged = [&](PlainPeer& by, const std::vector<Bytes>& datagrams) {
    for (const Bytes& bytes : datagrams) by.send(port, bytes);
    std::string numbers;
    while (numbers.find('7') == Bytes::npos && !(got = by.receive()).empty()) {
      if (got[1] == PACKET_ACK && sequenceOf(got) < 10) numbers += std::to_string(sequenceOf(got));
    }
    return numbers;
  };
  const Bytes part = datagram(PACKET_DATA, 6, 0, 2000, Bytes(1000, 'x')), last = datagram(PACKET_SYN, 7);
  EXPECT_EQ(acknowledged(peer, {datagram(PACKET_SYN, 5), part, last}), "57");
  EXPECT_EQ(acknowledged(other, {last}), "7");
  EXPECT_EQ(acknowledged(peer, {datagram(PACKET_DATA, 8, 0, 1, "x"), last}), "7")
      << "forgotten for the other";
}

TEST(ServiceUdp, WhatABusyPeerAsksAndWhatItDoesNotTakeIsBounded) {
  Handler handler;
  std::string lines;
  const service::Log log(service::Priority::INFO,
                         [&](service::Priority, const std::string& line) { lines += line; });
  service::UdpPort port(handler, log, {}, {});
  ASSERT_TRUE(port.start(loopback(), lines)) << lines;
  sockaddr_in to{};
  ASSERT_TRUE(shared::parseAddress(port.address(), to));
  Endpoint peer(500);
  const Bytes large = request(1011, Bytes(600'000, '\n')), small = request(1003);
  size_t sent = 0;
  // Sends these; how many requests are then handled, all of them the first one keeps waiting.
  const auto handledOf = [&](const std::vector<Bytes>& messages) {
    handler = {};
    handler.isBusy = true;
    for (const Bytes& message : messages) peer.queue(to, static_cast<int64_t>(++sent), message);
    const auto work = [&] {
      for (int turn = 0; turn < 100; ++turn) port.receive(0), port.goOn(0);
    };
    EXPECT_TRUE(eventually([&] { return work(), peer.events(UDP_EVENT_SESSION_FINISH).size() == sent; }));
    work();
    EXPECT_EQ(handler.handled, 1u);
    handler.isBusy = false;
    handler.asker->setBusy(false);
    port.resume(static_cast<service::DatagramClient&>(*handler.asker), 0);
    work();
    return handler.handled - 1;
  };
  std::vector<Bytes> many(1 + service::kMaxUdpDeferred + 5, small);
  EXPECT_EQ(handledOf(many), service::kMaxUdpDeferred);
  EXPECT_EQ(handledOf({small, large, large, small}), 2u);
  EXPECT_EQ(handledOf({small, large}), 1u) << "the bytes before no longer count";
  handler.replies = service::kMaxUdpPendingReplies + 1;
  peer.queue(to, 0, small);
  EXPECT_TRUE(eventually([&] {
    return port.receive(0), port.goOn(0), lines.find("it does not take its replies") != Bytes::npos;
  }));
}

TEST(ServiceIo, PriorityOfTheClientsThreadsIsRaisedAndPutBack) {
  const ParkedThread thread;
  const auto before = thread.ioPriority();
  RunningService running(Policy{{}, false, "/nowhere"});
  BytesClient client(running.name());
  if (syscall(SYS_ioprio_set, 1, thread.tid, before) != 0)
    GTEST_SKIP() << "NOT TESTED: how I/O priorities are raised and put back, this system refuses them: "
                 << strerror(errno);
  const ParkedThread realtime;
  const bool isRealtime = syscall(SYS_ioprio_set, 1, realtime.tid, 1 << 13 | 4) == 0;  // root may
  EXPECT_EQ(client.ask(1006, boost({2})), 0u);
  EXPECT_EQ(thread.ioPriority(), 2 << 13 | 1);
  EXPECT_TRUE(!isRealtime || realtime.ioPriority() == (1 << 13 | 4)) << "never lowered";
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
      {{file}, service::Status::DONE},
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
  if (geteuid() != 0) GTEST_SKIP() << "NOT TESTED beyond this: only root sees more than its clients";
  // A thread keeps the eyes that it has taken on.
  const auto asNobody = [&] {
    return std::async(std::launch::async, [&] { return service::preloadFiles({file}, 0, {}).status; }).get();
  };
  EXPECT_EQ(asNobody(), service::Status::NOT_PERMITTED);
  ASSERT_EQ(chmod(folder.path.c_str(), 0755) + chmod(file.c_str(), 0644), 0);
  EXPECT_EQ(asNobody(), service::Status::DONE);
}

std::vector<service::Fault> faults(const std::string& script) {
  std::vector<service::Fault> one(1);
  std::string problem;
  EXPECT_TRUE(service::parseFault(script, one[0], problem)) << problem;
  return one;
}

TEST(ServiceFaults, EachStrikesWhenItsScriptSays) {
  const Bytes a = answer(1009, 1), b = answer(1009, 2), c = answer(1009, 3);
  const Bytes three = request(1009, "", 1) + request(1009, "", 2) + request(1009, "", 3);
  const Bytes first = reply(1010, 0, hex("08 01 12 05") + "first");
  // When they strike: what the second of three clients gets for what it sends; the third is served. What each
  // of them does is seen by the case of `tarnbooster check` that finds it.
  const struct {
    const char* script;
    Bytes gets;
    Bytes sends;
  } rows[] = {
      {"no-answer,only=1009", "", three},           {"no-answer,every=2,only=1009", a + c, three},
      {"no-answer,after=1,only=1009", a, three},    {"no-answer,only=1003", a + b + c, three},
      {"no-answer,from=3600000", a + b + c, three}, {"twice,after=2", a + b + c + c, three},
      {"swap,every=2,only=1009", a + c + b, three}, {"close,after=1,only=1009", a, three},
      {"delay=1,after=1", a + b + c, three},        {"no-push,after=1", answer(1010) + first, request(1010)},
  };
  for (const auto& row : rows) {
    ServerOptions options;
    options.onRegister = {{1, "first"}, {2, "second"}};
    options.faults = faults(row.script);
    RunningService running({}, options);
    BytesClient before(running.name()), client(running.name());
    client.write(row.sends);
    EXPECT_EQ(client.read(row.gets.size()), row.gets) << row.script;
    BytesClient after(running.name());
    for (int i = 0; i < 2; ++i) EXPECT_EQ(after.ask(1001), 0u) << row.script;
    EXPECT_EQ(client.readNow(), "") << row.script;
  }
  for (const auto& [script, copies] :
       {std::pair("udp-lose=100", 0), {"udp-duplicate=100", 2}, {"twice", 1}}) {
    ServerOptions options;
    options.faults = faults(script);
    RunningService running({}, options);
    sockaddr_in to{};
    ASSERT_TRUE(shared::parseAddress(running.udpAddress(), to));
    PlainPeer peer;
    peer.send(to, datagram(PACKET_SYN, 100000));
    peer.send(to, datagram(PACKET_DATA, 100001, 0, 32, request(1009), 1));
    EXPECT_TRUE(running.says("1009 resetScreenResolution udp="));
    int seen = 0;
    for (Bytes bytes; !(bytes = peer.receive(50)).empty();) {
      seen += bytes[1] == PACKET_ACK && sequenceOf(bytes) == 100000 ? 1 : 0;
    }
    EXPECT_EQ(seen, copies) << script;
  }
}

}  // namespace
