// The command-line client against the reference service, over both transports, and what only UDP brings.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>

#include "shared/Address.h"
#include "support/RunningService.h"
#include "support/Udp.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;

const std::string kTool = TARNBOOSTER_TOOL " ", kService = TARNBOOSTER_SERVICE " ";

struct Outcome {
  int exitCode = -1;
  std::string output;  // both streams
};

Outcome shell(const std::string& command) {
  Outcome run;
  FILE* const pipe = popen(("exec 2>&1; " + command).c_str(), "r");
  char text[4096];
  for (size_t count = 0; (count = fread(text, 1, sizeof(text), pipe)) > 0;) run.output.append(text, count);
  const int status = pclose(pipe);
  if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  return run;
}

/// Runs the tool over UDP. Half a second without a turn while a direction opens ends that direction
/// (docs/udp.md): then the tool gets no answer, and a caller tries again.
Outcome patiently(const std::string& command) {
  Outcome run = shell(command);
  for (int again = 0; run.exitCode == 4 && again < 4; ++again) run = shell(command);
  return run;
}

/// A service without frequencies to set.
class ToolAndService : public testing::Test {
 protected:
  RunningService m_running{service::Policy{{}, false, "/nowhere"}};
  const std::string m_bySocket = kTool + "--socket " + m_running.name() + " ";
  const std::string m_byUdp = kTool + "--udp " + m_running.udpAddress() + " ";
};

TEST_F(ToolAndService, EverySubcommandReachesTheServiceWithItsArguments) {
  const struct {
    const char* arguments;
    const char* line;  // at the service
    int socketStatus, udpStatus;
  } cases[] = {
      {"check-permission --pid 10 --uid 20", "1001 checkPermission", 0, 0},
      {"request-cpu-high-freq --scene 3 --level 2 --timeoutms 1000 --action 4294967301",
       "scene=3 level=2 timeoutms=1000 action=4294967301", 4, 4},
      // Over UDP nobody is seen to go: there a boost needs an end.
      {"request-cpu-high-freq --level 1 --timeoutms 600000", "timeoutms=600000", 4, 4},
      {"request-cpu-high-freq --level 1 --timeoutms 600001", "timeoutms=600001", 4, 3},
      {"request-cpu-high-freq --level 1 --timeoutms 0", "timeoutms=0", 4, 3},
      {"cancel-cpu-high-freq", "1003 cancelCpuHighFreq", 0, 0},
      {"request-cpu-core-for-thread --scene -3 --bindtids 1,-2 --timeout 7 --action -1",
       "scene=-3 bindtids=[1,-2] timeout=7 action=-1", 6, 7},
      {"cancel-cpu-core-for-thread --bindtids 101 --bindtids 102", "bindtids=[101,102]", 0, 7},
      {"request-high-io-freq --scene 3 --level 0 --timeoutms 1", "level=0 timeoutms=1 action=0", 3, 3},
      {"cancel-high-io-freq", "1007 cancelHighIOFreq", 0, 0},
      {"request-screen-resolution --level 2 --uiName main", "level=2 uiName=\"main\"", 0, 0},
      {"reset-screen-resolution", "1009 resetScreenResolution", 0, 0},
      {"register-anr-callback", "1010 registerANRCallback", 0, 0},
      {"register-boot-preload-resource --file /etc/passwd --file /etc/group",
       "files=2 [\"/etc/passwd\", \"/etc/group\"]", 0, 0},
      {"terminate-app", "1012 terminateApp", 5, 7},
      {"request-unify-cpu-io-thread-core --scene 1 --cpulevel 2 --bindtids 1 --timeout 9 --action 7",
       "scene=1 cpulevel=2 iolevel=0 bindtids=[1] timeout=9 action=7", 4, 7},
      {"cancel-unify-cpu-io-thread-core --cancelcpu --cancelthread --bindtids 5",
       "cancelcpu=1 cancelio=0 cancelthread=1 bindtids=[5]", 0, 7},
  };
  for (const auto& c : cases) {
    for (const bool udp : {false, true}) {
      const int status = udp ? c.udpStatus : c.socketStatus;
      const Outcome run = patiently((udp ? m_byUdp : m_bySocket) + "--tid 99 --timestamp 123 " + c.arguments);
      EXPECT_EQ(run.exitCode, status == 0 ? 0 : 1) << run.output;
      EXPECT_THAT(run.output,
                  AllOf(HasSubstr(" status " + std::to_string(status) + " ("), HasSubstr(") timestamp 123")));
      const auto lines = m_running.linesWith(c.line);
      ASSERT_GE(lines.size(), udp ? 2u : 1u) << c.arguments;  // a stalled UDP client sends twice
      EXPECT_THAT(lines.back(), AllOf(HasSubstr(udp ? " udp=127.0.0.1:" : " pid="), HasSubstr(" tid=99")));
    }
  }
}

TEST_F(ToolAndService, ExitCodesTellScriptsWhatHappened) {
  const FakeService mute(uniqueName());
  const struct {
    std::string command;
    int exitCode;
    const char* says;
  } cases[] = {
      {m_bySocket + "request-cpu-high-freq --help", 0, "--timeoutms"},
      {kTool + "--socket demo", 2, "no subcommand is given"},
      {m_bySocket + "--udp 127.0.0.1:1 check-permission", 2, "--udp"},
      {kTool + "--udp 127.0.0.1 check-permission", 2, "no IPv4 address and port"},
      {kTool + "--udp 127.0.0.1:0x10 check-permission", 2, "no IPv4 address and port"},
      {kTool + "--socket '' check-permission", 2, "the name is empty"},
      {kTool + "--udp '' check-permission", 2, "--udp is empty"},
      {"echo register-boot-preload-resource --files-from - | " + m_bySocket + "-", 2,
       "being read for requests"},
      {m_bySocket + "register-boot-preload-resource --files-from /dev/zero", 2, "more than 67108864 bytes"},
      {m_bySocket + "check --skip '*'", 2, "no case is left to try"},
      {m_bySocket + "check --self-test", 2, "leave --socket and --udp out"},
      {kTool + "--socket @" + m_running.name() + "n check-permission", 2, "108 bytes, at most 107"},
      {m_bySocket + "chek-permission", 2, "did you mean check-permission?"},
      {m_bySocket + "request-cpu-high-freq --levl 2 --timeoutms 5", 2,
       "no option --levl; did you mean --level?"},
      {m_bySocket + "check-permission cancel-cpu-high-freq", 2, "one at a time"},
      {m_bySocket + "check-permission -", 2, "one at a time"},
      {m_bySocket + "cancel-cpu-core-for-thread --bindtids 1 2", 2, "\"2\" does not belong to"},
      {m_bySocket + "check answers.in-order push.*", 2, "there is no case"},
      {m_bySocket + "request-cpu-high-freq --timeoutms 5", 2, "--level"},
      {m_bySocket + "request-cpu-high-freq --level 1 --timeoutms 010", 2, "no decimal number"},
      {m_bySocket + "cancel-cpu-core-for-thread --bindtids ''", 2, "the list is empty"},
      {m_bySocket + "cancel-cpu-core-for-thread --bindtids 1,,2", 2, "neither a decimal thread id"},
      {m_bySocket + "register-boot-preload-resource --files-from /tmp", 2, "Is a directory"},
      {m_bySocket + "--wait 0 check-permission", 2, "--wait"},
      {m_bySocket + "check-permission >/dev/full", 7, "cannot write the output"},
      {kTool + "--help >/dev/full", 7, ""},
      {kTool + "--version", 0, "tarnbooster 1."},
      {"TARNBOOSTER_SOCKET=@" + m_running.name() + " " + kTool + "check-permission", 0, "status 0 (done)"},
      {m_bySocket + "--repeat 500 --summary check-permission", 0, "500 answered"},
      {"timeout 0.5 " + m_bySocket + "--repeat 3 --interval 300 check-permission", 124, "status 0"},
      {m_bySocket + "--repeat 3 --interval 1 --summary --json check-permission", 0,
       R"("sent":3,"answered":3,)"},
      {m_bySocket + "--json terminate-app", 1, R"("status":5,"words":"no right",)"},
      {kTool + "--socket " + uniqueName() + " check-permission", 3, "is it running?"},
      {kTool + "--socket " + mute.name() + " --answer-within 50 check-permission", 4, "no answer"},
      {kTool + "--udp 127.0.0.1:9 --repeat 30 check-permission", 4, "does not acknowledge"},
      {kService + "--help", 0, "--push-on-register"},
      {kService, 2, "nowhere to listen"},
      {"f=$(mktemp); echo mine >$f; " + kService + "--name x --record $f; rc=$?; cat $f; rm $f; exit $rc", 1,
       "is no record of this service\nmine"},
      {kService + "--nam x", 2, "no option --nam; did you mean --name?"},
      {kService + "--name " + m_running.name() + "n", 2, "has 108 bytes, at most 107 fit"},
      {kService + "--name @" + m_running.name(), 1, "is in use"},
      {kService + "--udp " + m_running.udpAddress(), 1, "is in use"},
      // Ended as soon as it is ready.
      {"exec 3>&1; { " + kService +
           "--udp 127.0.0.1:0 & echo $!; wait $!; echo rc $? >&3; } | "
           "{ read pid; grep -m 1 'listening on udp 127.0.0.1:[1-9]'; kill $pid; cat; }",
       0, "rc 0"},
  };
  for (const auto& c : cases) {
    const Outcome run = shell(c.command);
    EXPECT_EQ(run.exitCode, c.exitCode) << c.command << "\n" << run.output;
    EXPECT_THAT(run.output, HasSubstr(c.says)) << c.command;
  }
}

TEST(Tool, NoticesAtOnceWhatBecomesOfTheConnection) {
  const struct {
    const char* arguments;
    Bytes answer;  // before the service closes
    int exitCode;
    const char* says;
  } cases[] = {
      {"--answer-within 3600000", "", 5, "has closed the connection"},
      {"--wait 3600000", reply(1001, 0, "", 7), 5, "reply 1001 status 0"},
      {"--wait 3600000", "garbage instead of a reply's header", 6, "starts with \"garb\""},
      {"", reply(1010, 0, "x") + reply(1010, 0, "y") + reply(1001, 5, "", 7), 1, "directly after a body"},
  };
  for (const auto& c : cases) {
    FakeService service(uniqueName());
    std::thread serving([&] {
      service.accept();
      service.readRequest();
      service.write(c.answer);
      service.stop();
    });
    const Outcome run =
        shell(kTool + "--socket " + service.name() + " --timestamp 7 " + c.arguments + " check-permission");
    EXPECT_EQ(run.exitCode, c.exitCode) << run.output;
    EXPECT_THAT(run.output, HasSubstr(c.says));
    serving.join();
  }
}

TEST_F(ToolAndService, MakesLinesOfInputRequestsOfOneConnection) {
  const Outcome run = shell(
      "{ echo '# a comment'; echo; echo request-screen-resolution --level 1 --uiName \"'a b'\";"
      " echo chek-permission; echo --tid 5 register-anr-callback; } | " +
      m_bySocket + "-");
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_THAT(run.output,
              AllOf(HasSubstr("line 4: there is no subcommand"), HasSubstr("reply 1010 status 0")));
  EXPECT_EQ(m_running.linesWith("uiName=\"a b\"").size(), 1u);
  EXPECT_EQ(m_running.linesWith("tid=5 ").size(), 1u);
  EXPECT_EQ(m_running.linesWith("connected pid").size(), 1u);
}

TEST(Tool, ShowsWhoHoldsWhat) {
  const std::string file = testing::TempDir() + uniqueName();
  const std::string state =
      R"({"version": 1, "pid": 812, "writtenAtMs": 1767225600123,
          "clients": [{"id": 4, "name": "pid=4711 uid=1000", "pid": 4711, "uid": 1000, "registered": false, "holds": true}],
          "settings": [
            {"key": "a", "what": "affinity", "tid": 4713, "original": "0-7", "applied": "7", "boosts":
              [{"client": 4, "request": 1004, "requestName": "requestCpuCoreForThread", "level": 1, "expiresAtMs": null}]},
            {"key": "i", "what": "io", "pid": 4711, "threads": [{"tid": 1, "original": 0}], "applied": 16385, "boosts":
              [{"client": 9, "request": 1006, "requestName": "requestHighIOFreq", "level": 2, "expiresAtMs": 0}]},
            {"key": "f", "what": "frequency", "cpus": [{"original": 4, "applied": 9}, {"original": 5, "applied": 9}],
             "boosts": []}]})";
  const struct {
    std::string content;
    const char* arguments;
    int exitCode;
    const char* shows;
  } cases[] = {
      {state, "", 0,
       "CPUs of thread 4713       0-7      7              1004 requestCpuCoreForThread  1      until "
       "cancelled"},
      {state, "", 0, "pid=4711 uid=1000          CPUs"},
      {state, "", 0, "a forgotten client         I/O of 1 threads of 4711  none     best-effort 1"},
      {state, "", 0, "nobody: is to be put back  frequency of 2 CPUs       4-5 kHz  9 kHz"},
      {state, "--json", 0, R"("applied":16385)"},
      {R"({"version": 2})", "", 6, "of a later version"},
      {R"({"version": 1, "pid": "x"})", "", 6, "is no state of a service"},
      {"", "", 6, "is no state of a service"},
  };
  for (const auto& c : cases) {
    std::ofstream(file) << c.content;
    const Outcome run = shell(kTool + "holds --state-file " + file + " " + c.arguments);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.output;
    EXPECT_THAT(run.output, HasSubstr(c.shows));
  }
  remove(file.c_str());
  EXPECT_EQ(shell(kTool + "holds --state-file " + file).exitCode, 3);
}

TEST_F(ToolAndService, ManyRequestsAndLongOnesAreAllAnswered) {
  const std::string names = "yes /etc/passwd | head -n 20000 | ";  // 280,000 bytes: 280 datagrams
  for (const std::string& tool : {m_bySocket, m_byUdp}) {
    EXPECT_EQ(patiently(tool + "--repeat 200 reset-screen-resolution").exitCode, 0);
    const Outcome run =
        patiently(names + tool + "register-boot-preload-resource --file /etc/group --files-from -");
    EXPECT_EQ(run.exitCode, 1) << run.output;  // partly: the service looks at the first few thousand
  }
  EXPECT_EQ(m_running.linesWith("files=20001 [\"/etc/group\", \"/etc/passwd\"").size(), 2u);
}

TEST(Tool, ShowsPushesAsTheyComeOnBothTransports) {
  service::ServerOptions options;
  options.onRegister = {{7, "a\"b"}, {-8, ""}};
  options.repeat = {{{9, "again"}, 20, 0}};
  RunningService running({}, options);
  for (const std::string& where : {"--socket " + running.name(), "--udp " + running.udpAddress()}) {
    // The request (anywhere), its reply, and four pushes: the empty replies between are not shown.
    const Outcome run = shell("{ " + kTool + where +
                              " --wait 60000 register-anr-callback & echo $!; } | "
                              "{ read pid; head -n 6 | grep -v ^sent; kill $pid; }");
    EXPECT_THAT(run.output,
                AllOf(HasSubstr("reply 1010 status 0"), HasSubstr("push code 7 data \"a\\x22b\" (3 bytes)\n"
                                                                  "push code -8 data \"\" (0 bytes)\n"
                                                                  "push code 9 data \"again\" (5 bytes)\n"
                                                                  "push code 9 data \"again\" (5 bytes)\n")));
  }
}

TEST(Tool, IsEndedByTheServiceOnlyWhereThatKnowsIt) {
  RunningService running(service::Policy{{}, true});
  EXPECT_EQ(patiently(kTool + "--udp " + running.udpAddress() + " terminate-app").exitCode, 1);
  // A shell that goes on behind the tool reports the signal as 128 + its number.
  const Outcome ended = shell(kTool + "--socket " + running.name() + " --wait 20000 terminate-app; exit $?");
  EXPECT_EQ(ended.exitCode, 128 + SIGTERM) << ended.output;
}

TEST(ServiceUdp, APeerThatAcknowledgesWhatItHasNotGotStopsNobody) {
  service::ServerOptions options;
  options.onRegister = {{1, std::string(6000, 'x')}};
  RunningService running({}, options);
  sockaddr_in to{};
  ASSERT_TRUE(shared::parseAddress(running.udpAddress(), to));
  PlainPeer liar;
  const Bytes message = request(1010);
  liar.send(to, datagram(PACKET_SYN, 100000));
  for (uint32_t i = 1; i <= 60; ++i) liar.send(to, datagram(PACKET_DATA, 100000 + i, 0, 32, message, i));
  // Every acknowledgement says that its message has arrived whole.
  for (int acknowledged = 0; acknowledged < 40;) {
    const Bytes bytes = liar.receive();
    ASSERT_FALSE(bytes.empty());
    if (bytes[1] == PACKET_ACK) continue;
    liar.send(liar.from, datagram(PACKET_ACK, sequenceOf(bytes)));
    ++acknowledged;
  }
  EXPECT_EQ(patiently(kTool + "--udp " + running.udpAddress() + " check-permission").exitCode, 0);
}

}  // namespace
