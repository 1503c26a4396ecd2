// Recordings sent again: what is sent, and which differences are told.
#include <gmock/gmock.h>

#include "record/Recordings.h"
#include "support/RunningService.h"
#include "tools/record/Replayer.h"
#include "tools/record/UdpRelay.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

struct Replayed {
  record::ReplayResult result;
  std::string problem;
  std::vector<std::string> lines;
};

Replayed replay(const std::string& path, const client::Target& target, bool fast = true,
                int64_t waitMs = 2000) {
  Replayed replayed;
  record::Replayer replayer(
      target, {fast, waitMs}, [&](const std::string& line) { replayed.lines.push_back(line); },
      [](size_t, size_t) {});
  replayed.result = replayer.run(path, replayed.problem);
  return replayed;
}

TEST(Replay, TheSameServiceAnswersTheSameOverEitherTransportAndAtEitherSpeed) {
  service::ServerOptions options;
  options.onRegister = {{7, "first"}, {8, "second"}};
  RunningService service({{}, false, "/nowhere"}, options);
  RunningRelay relay(service.name());
  const Bytes files = hex("0A0A") + "/etc/hosts";
  Bytes many;
  for (int i = 0; i < 30000; ++i) many += files;
  {
    BytesClient registered(relay.name());
    EXPECT_EQ(registered.ask(1010), 0u);
    EXPECT_EQ(registered.read(41 + 32 + 42).size(), 115u);  // both pushes, and what stands between them
  }
  for (const Bytes& body : {Bytes(), files, many}) {
    BytesClient first(relay.name()), second(relay.name());
    EXPECT_EQ(first.ask(1003), 0u);
    EXPECT_EQ(second.ask(1007), 0u);
    EXPECT_NE(first.ask(1011, body), UINT32_MAX);
    EXPECT_NE(first.ask(1002, "\x08\x01\x10\x02\x18\x03\x20\x04"), 0u);
  }
  relay.stop();
  client::Target local, udp;
  local.name = service.name();
  ASSERT_EQ(client::parseUdp(service.udpAddress(), udp), "");
  for (const bool fast : {true, false}) {
    const Replayed replayed = replay(relay.path(), local, fast);
    EXPECT_THAT(replayed.lines, IsEmpty());
    EXPECT_EQ(replayed.result.connections, 7u);
    EXPECT_EQ(replayed.result.requests, 13u);
    EXPECT_EQ(replayed.result.answers, replayed.result.requests);
    EXPECT_EQ(replayed.result.pushes, 2u);
  }
  const Replayed replayed = replay(relay.path(), udp, true, 10000);
  EXPECT_THAT(replayed.lines, IsEmpty());
  EXPECT_EQ(replayed.result.answers, 13u);
}

TEST(Replay, TellsEveryDifferenceAndSendsWhatWasSent) {
  const Bytes a = reply(1010, 0, hex("0807 1201 61")), b = reply(1010, 0, hex("0807 1201 62"));
  Capture written;
  for (const Bytes& bytes : {request(1001, "", 1), request(1002, "x", 2), Bytes("garbage")})
    written.add(kOut, bytes, 1, 50);
  for (const Bytes& bytes :
       {reply(1001, 0, "", 1), reply(1002, 3, "", 2), a, reply(1010, 0), a, reply(1003, 0, "", 3)})
    written.add(kIn, bytes, 1, 50);
  const struct {
    size_t missing;
    bool broken;
    Bytes answers;
    std::vector<std::string> lines;
  } cases[] = {
      {0,
       false,
       reply(1001, 0, "", 1, 99) + reply(1002, 3, "", 2) + a + reply(1010, 0) + a + reply(1003, 0, "", 3),
       {}},
      {0,
       false,
       reply(1001, 7, "", 1) + reply(1002, 3, "y", 2) + a + reply(1010, 0) + b + reply(1003, 0, "", 3),
       {"connection 1: the answer to 1001 (time stamp 1): status 7 came, 0 was recorded",
        "connection 1: the answer to 1002 (time stamp 2): a body of 1 bytes \"y\" came, 0 bytes \"\" was "
        "recorded",
        "connection 1: push 2: a body of 5 bytes \"\\x08\\x07\\x12\\x01b\" came, 5 bytes "
        "\"\\x08\\x07\\x12\\x01a\" was recorded"}},
      {2,
       false,
       reply(1002, 3, "", 2) + reply(1001, 0, "", 1) + reply(1009, 2, "", 4) + a,
       {"connection 1: the answer to 1002 (time stamp 2): in another order than recorded",
        "connection 1: the answer to 1003 (time stamp 3) has not come; status 0 was recorded",
        "connection 1: the answer to 1009 (time stamp 4) came, with status 2; none was recorded",
        "connection 1: 1 pushes have not come"}},
      {4,
       true,
       reply(1001, 0, "", 1) + "What is this? More than 32 bytes of it.",
       {"connection 1: a reply starts with \"What\" instead of \"RCDH\"",
        "connection 1: the answer to 1002 (time stamp 2) has not come; status 3 was recorded",
        "connection 1: the answer to 1003 (time stamp 3) has not come; status 0 was recorded",
        "connection 1: 2 pushes have not come"}},
  };
  for (const auto& c : cases) {
    FakeService service(uniqueName());
    Bytes received;
    std::thread answering([&] {
      if (!service.accept()) return;
      received = service.read(2 * 32 + 1 + 7);
      service.write(c.answers);
      service.read(1);
    });
    client::Target target;
    target.name = service.name();
    const Replayed replayed = replay(written.path(), target, false, 300);
    EXPECT_THAT(replayed.lines, testing::UnorderedElementsAreArray(c.lines));
    EXPECT_EQ(replayed.result.missing, c.missing);
    EXPECT_FALSE(replayed.result.lost);
    EXPECT_EQ(replayed.result.broken, c.broken);
    answering.join();
    EXPECT_EQ(received, request(1001, "", 1) + request(1002, "x", 2) + "garbage");
  }
}

TEST(UdpRelay, DatagramsPassBothWaysOverEveryPortAndTheirMessagesAreReplayed) {
  RunningService service;
  client::Target target, relayed;
  ASSERT_EQ(client::parseUdp(service.udpAddress(), target), "");
  const TemporaryFile path;
  const shared::UniqueFd end(eventfd(0, EFD_CLOEXEC));
  record::RecordingFile file;
  record::Recorder recorder(file, [](const std::string&) {});
  record::UdpRelay relay(target.udp, recorder);
  std::string problem;
  ASSERT_TRUE(file.create(path.path, problem) && relay.start(loopback(), problem)) << problem;
  std::thread running([&] { relay.run(end.get()); });
  relayed.udp = relay.address();
  Bytes files;
  for (int i = 0; i < 1000; ++i) files += hex("0A0A") + "/etc/hosts";
  for (int application = 0; application < 2; ++application) {
    const auto connection = client::connectTo(relayed, problem);
    for (const Bytes& sent : {request(1003, "", 1), request(1011, files, 2), request(1100, "", 3)}) {
      connection->send(sent);
      client::Reply reply;
      ASSERT_EQ(connection->next(reply, client::steadyMs() + 20000), client::Event::REPLY);
      EXPECT_EQ(reply.header.timestamp,
                static_cast<int64_t>(read64le(reinterpret_cast<const uint8_t*>(&sent[24]))));
    }
  }
  eventfd_write(end.get(), 1);
  running.join();
  EXPECT_GT(file.packets(), 2u * (2 + 12 + 1) * 2);  // DATA and acknowledgements
  const Replayed replayed = replay(path.path, target, true, 10000);
  EXPECT_THAT(replayed.lines, IsEmpty());
  EXPECT_EQ(replayed.result.answers, 6u);
}

/// What a shell prints, and its exit code in the last line.
std::string shell(const std::string& command) {
  return shellOutput("tool='" TARNBOOSTER_TOOL "'; " + command + "; echo \"rc $?\"");
}

TEST(Replay, TheSubcommandsRecordUntilTheyAreToldToEndAndExitCodesTellTheOutcome) {
  const TemporaryFile file;
  RunningService service, other(service::Policy{{{1001, 5}}});
  const std::string as = uniqueName(), where = " --socket " + service.name() + " ";
  EXPECT_THAT(
      shell("$tool" + where + "record --as " + as + " --write " + file.path +
            " & r=$!; for i in 1 2 3 4 5 6 7 8 9; do sleep 0.2; $tool --socket " + as +
            " check-permission && break; done; kill -INT $r; wait $r"),
      testing::AllOf(HasSubstr("status 0"), HasSubstr("1 requests and 1 replies over 1 connections, in "),
                     HasSubstr("rc 0\n")));
  const struct {
    std::string command;
    const char* says;
  } cases[] = {
      {where + "replay " + file.path, "1 answers and 0 pushes compared, 0 differences\nrc 0\n"},
      {" --socket " + other.name() + " replay --fast " + file.path, "status 5 came, 0 was recorded"},
      {" --socket " + other.name() + " replay -q " + file.path, "recorded\nrc 1\n"},
      {" --socket " + as + " replay " + file.path, "is it running?\n0 requests"},
      {" --socket " + as + " replay -q " + file.path, "rc 3\n"},
      {where + "replay /nowhere", "cannot read /nowhere: No such file or directory\nrc 6\n"},
      {where + "replay /proc/self/maps", "holds no requests: this is no pcapng file"},
      {where + "replay " + file.path + ".cut; rm " + file.path + ".cut",
       "the file is cut off within a block"},
      {where + "record --as " + service.name() + " --write /nowhere", "is in use"},
      {where + "record --as " + as + " --write /dev/full", "No space left on device\nrc 7\n"},
      {where + "record --as " + as, "--write is required"},
      {where + "record --as-udp 127.0.0.1:1 --write /nowhere", "--as goes with --socket"},
      {" --udp 127.0.0.1:1 record --as-udp 127.0.0.1 --write /dev/null",
       "--as-udp: \"127.0.0.1\" is no IPv4 address"},
  };
  shell("head -c -6 " + file.path + " > " + file.path + ".cut");
  for (const auto& c : cases) EXPECT_THAT(shell("$tool" + c.command), HasSubstr(c.says));
}

}  // namespace
