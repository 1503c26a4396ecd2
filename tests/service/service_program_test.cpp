// tarnbooster-service as a process: how it starts, ends, is killed, and what it says to whom.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "service/Options.h"
#include "support/RunningService.h"

namespace {

using testing::HasSubstr;

const bool g_isSet = (g_patience = std::chrono::seconds(5), true);

/// The program, with its lines in a pipe that is read only when somebody asks.
class ServiceProgram {
 public:
  explicit ServiceProgram(const std::string& arguments, const std::string& front = "", int third = -1) {
    EXPECT_EQ(pipe2(m_lines, O_CLOEXEC), 0);
    const std::string command = front + " exec " TARNBOOSTER_SERVICE " " + arguments;
    m_pid = fork();
    if (m_pid == 0) {
      signal(SIGHUP, SIG_DFL);  // who tests below nohup leaves it ignored
      dup2(m_lines[1], 1);
      if (third >= 0) dup2(third, 3);  // what systemd hands over begins there
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    close(m_lines[1]);
  }
  ~ServiceProgram() {
    if (pid() > 0) end(SIGKILL);
    close(m_lines[0]);
  }
  pid_t pid() const { return m_pid; }
  /// Reads lines until one contains the text; empty when there is none.
  std::string lineWith(const std::string& text) {
    std::string line;
    for (char c = 0; read(m_lines[0], &c, 1) == 1; line = c == '\n' ? "" : line + c) {
      if (c == '\n' && line.find(text) != std::string::npos) return line;
    }
    return "";
  }
  /// How it ended, as waitpid() tells.
  int end(int signal) {
    int status = 0;
    kill(m_pid, signal);
    waitpid(std::exchange(m_pid, 0), &status, 0);
    return status;
  }

 private:
  int m_lines[2];
  pid_t m_pid = 0;
};

/// One that listens.
struct Program : ServiceProgram {
  explicit Program(const std::string& arguments, const std::string& record = "''",
                   const Bytes& itsName = uniqueName())
      : ServiceProgram("--name " + itsName + " --record " + record + " " + arguments), name(itsName) {
    EXPECT_NE(lineWith("listening on @" + name), "");
  }
  const Bytes name;
};

TEST(ServiceProgram, HoweverItEndsItsBoostsArePutBackAtTheNextStartAtTheLatest) {
  const ParkedThread thread;
  const std::string before = thread.cpus();
  if (before.find_first_of("-,") == std::string::npos) GTEST_SKIP() << "NOT TESTED: one CPU only";
  const std::string record = "/tmp/" + uniqueName() + ".record";
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGKILL}) {
    Program program("", record);
    BytesClient client(program.name);
    ASSERT_EQ(client.ask(1004, boost({thread.tid})), 0u);
    EXPECT_NE(thread.cpus(), before);
    EXPECT_EQ(client.ask(1006, boost({3})), 0u);
    const int status = program.end(signal);
    EXPECT_EQ(WIFSIGNALED(status), signal == SIGKILL);
    EXPECT_EQ(thread.cpus() == before, signal != SIGKILL) << signal;
    EXPECT_EQ(program.lineWith("boost ended (the service ends)").empty(), signal == SIGKILL);
  }
  EXPECT_EQ(thread.ioPriority(), 2 << 13 | 0);
  std::ofstream(record, std::ios::app)
      << "{\"key\":\"affinity of 1 started 1\",\"found\":{\"what\":\"affinity\"}}\n"
      << "damaged";
  {
    Program next("", record);
    EXPECT_EQ(thread.cpus(), before);
    EXPECT_NE(thread.ioPriority(), 2 << 13 | 0);
    ServiceProgram third("--name " + uniqueName() + " --record " + record + " 2>&1");
    EXPECT_THAT(third.lineWith("record"), HasSubstr("another service uses"));
    next.end(SIGTERM);
  }
  EXPECT_NE(unlink(record.c_str()), 0) << "nothing is held";
}

TEST(ServiceProgram, TellsWhoHoldsWhat) {
  const ParkedThread thread;
  const std::string path = "/tmp/" + uniqueName() + ".json";
  Program program("--state-file " + path);
  const auto state = [&] {
    std::ifstream file(path);
    return nlohmann::json::parse(file, nullptr, false);
  };
  {
    BytesClient client(program.name);
    ASSERT_EQ(client.ask(1004, boost({thread.tid})), 0u);
    ASSERT_TRUE(eventually([&] { return state()["settings"].size() == 1; }));
    const auto now = state();
    EXPECT_EQ(now["clients"][0]["pid"], getpid());
    EXPECT_EQ(now["settings"][0]["boosts"][0]["client"], now["clients"][0]["id"]);
    EXPECT_EQ(now["settings"][0]["tid"], thread.tid);
    kill(program.pid(), SIGUSR1);
    EXPECT_THAT(program.lineWith("holds: affinity of"), HasSubstr("by 1004 requestCpuCoreForThread of pid="));
  }
  EXPECT_TRUE(eventually([&] { return state()["clients"].empty() && state()["settings"].empty(); }));
  program.end(SIGTERM);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(ServiceProgram, AReaderOfItsLinesThatDoesNotReadHoldsNobodyUp) {
  Program program("");
  BytesClient client(program.name);
  const Bytes names = request(1008, hex("08 01 12 64") + Bytes(100, '\n'));  // lines of 500 bytes
  for (int i = 0; i < 40; ++i) {
    Bytes many;
    for (int j = 0; j < 200; ++j) many += names;
    ASSERT_TRUE(client.write(many));
    ASSERT_EQ(client.read(200 * 32).size(), 200u * 32);
  }
  EXPECT_THAT(program.lineWith("lines were lost"), HasSubstr("warning: "));
  EXPECT_EQ(program.end(SIGTERM), 0);
}

TEST(ServiceProgram, SpeaksSystemdsProtocols) {
  const std::string name = uniqueName(), notify = uniqueName();
  const auto [address, length] = abstractAddress(notify);
  const int ready = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(ready, reinterpret_cast<const sockaddr*>(&address), length), 0);
  // As systemd-socket-activate, or systemd, starts it: with the listening socket as descriptor 3.
  const FakeService listener(name);
  ServiceProgram program(
      "", "export LISTEN_PID=$$ LISTEN_FDS=1 JOURNAL_STREAM=1:1 NOTIFY_SOCKET=@" + notify + ";",
      listener.listener());
  char state[100] = "";
  EXPECT_GT(recv(ready, state, sizeof(state) - 1, 0), 0);
  EXPECT_THAT(state, HasSubstr("READY=1"));
  EXPECT_THAT(program.lineWith("listening"), HasSubstr("listening on @" + name));
  EXPECT_EQ(BytesClient(name).ask(1003), 0u);
  EXPECT_EQ(program.end(SIGTERM), 0);
  close(ready);
  EXPECT_EQ(service::styledLine(service::LineStyle::JOURNAL, service::Priority::WARNING, "x"), "<4>x\n");
}

TEST(ServiceOptions, AreTakenAsTheyAreMeant) {
  service::Options options;
  const auto parse = [&](const std::string& line) -> std::string {
    options = {};
    CLI::App app;
    describeOptions(app, options);
    try {
      app.parse(line);
    } catch (const CLI::ParseError& problem) {
      return problem.what();
    }
    return optionsProblem(options);
  };
  const std::pair<const char*, const char*> refused[] = {
      {"--status 1002=010", "\"010\" is no number from -2147483648 to 2147483647"},
      {"--status 0x3ea=1", "\"0x3ea\" is no number from 0 to 65535"},
      {"--status 1002=4294967291", "is no number"},
      {"--status 1002", "a '=' is missing in \"1002\""},
      {"--status 65536=1", "is no number"},
      {"--push-every 0:7:x", "\"0\" is no time from 0.001 to 86400 seconds"},
      {"--push-on-register text", "a ':' is missing in \"text\""},
      {"--udp 127.0.0.1:0x10", "\"127.0.0.1:0x10\" is no IPv4 address and port"},
      {"--udp 127.0.0.1:0 --allow-uid 7", "do not go with --udp"},
      {"--allow-uid nobody-of-this-name",
       "\"nobody-of-this-name\" is no user of this machine, and no number"},
      {"--lines loud", "\"loud\" is none of plain, time, journal"},
      {"--fault delay=1,often=2", "there is no \"often\" to a fault"},
      {"--fault ''", "missing"},
      {"--fault slow", "there is no fault \"slow\""},
      {"--fault delay=-1", "delay takes a number from 0 to 3600000"},
      {"--fault close=3", "the fault close takes no value"},
      {"--fault close,every=0", "every takes a number from 1"},
      {"--fault refuse,only=1001", "the fault refuse strikes no requests"},
      {"--clients-per-user 0", "\"0\" is no number from 1 to 1000000"},
  };
  for (const auto& [line, problem] : refused) EXPECT_THAT(parse(line), HasSubstr(problem)) << line;
  EXPECT_EQ(
      parse(
          "--name x --push-every 2.5:7:a:b --allow-terminate --status 1002=-5 --allow-uid root --allow-uid 7 "
          "--fault delay=5,every=2 --fault close"),
      "");
  EXPECT_EQ(options.server.repeat[0].everyMs, 2500);
  EXPECT_EQ(options.server.repeat[0].push.data, "a:b");
  EXPECT_TRUE(options.policy.allowTerminate);
  EXPECT_EQ(options.policy.scriptedStatus.at(1002), static_cast<uint32_t>(-5));
  EXPECT_EQ(options.server.access.uids, (std::set<uid_t>{0, 7}));
  EXPECT_FALSE(options.server.access.allows(nullptr));
  EXPECT_EQ(options.server.faults.size(), 2u);
  EXPECT_EQ(options.server.faults[0].value, 5);
}

}  // namespace
