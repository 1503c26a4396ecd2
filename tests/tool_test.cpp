// The command-line client against the reference service, over both transports, and what only UDP brings:
// peers that vanish, peers without end, messages of any size.
#include <arpa/inet.h>
#include <sys/wait.h>

#include <cstdio>

#include "UdpPort.h"
#include "support/RunningService.h"

namespace {

using testing::Test;

struct ToolRun {
  int exitCode = -1;
  std::string output;  // both streams
};

ToolRun shell(const std::string& command) {
  ToolRun run;
  FILE* const pipe = popen(("exec 2>&1; " + command).c_str(), "r");
  EXPECT_NE(pipe, nullptr);
  char text[4096];
  for (size_t count = 0; (count = fread(text, 1, sizeof(text), pipe)) > 0;) run.output.append(text, count);
  const int status = pclose(pipe);
  if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  return run;
}

/// Runs the tool with these arguments of a shell, and `input` before it in a shell's pipe.
ToolRun tool(const std::string& arguments, const std::string& input = "") {
  return shell(input + TARNBOOSTER_TOOL " " + arguments);
}

int countOf(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
  return count;
}

service::ServerOptions withUdp(service::ServerOptions options = {}) {
  EXPECT_TRUE(service::UdpPort::parseAddress("127.0.0.1:0", options.udp.emplace()));
  return options;
}

service::Policy withoutFrequencies() {
  service::Policy policy;
  policy.sysRoot = "/nowhere";
  return policy;
}

class ToolAndService : public Test {
 protected:
  std::string bySocket() const { return "--socket " + m_running.name() + " "; }
  std::string byUdp() { return "--udp " + m_running.server().udpAddress() + " "; }

  RunningService m_running{withoutFrequencies(), withUdp()};
};

TEST_F(ToolAndService, EverySubcommandReachesTheServiceWithItsArguments) {
  const struct {
    const char* arguments;
    const char* line;  // at the service
    int socketStatus;  // -1: not asked
    int udpStatus;
  } cases[] = {
      {"check-permission --pid 10 --uid 20", "1001 checkPermission", 0, 0},
      {"request-cpu-high-freq --scene 3 --level 2 --timeoutms 1000 --action 4294967301",
       "scene=3 level=2 timeoutms=1000 action=4294967301", 4, 4},
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
      {"register-boot-preload-resource", "files=0 []", 0, 0},
      {"terminate-app", "1012 terminateApp", 5, 7},
      {"request-unify-cpu-io-thread-core --scene 1 --cpulevel 2 --bindtids 1 --timeout 9 --action 7",
       "scene=1 cpulevel=2 iolevel=0 bindtids=[1] timeout=9 action=7", 4, 7},
      {"cancel-unify-cpu-io-thread-core --cancelcpu --cancelthread --bindtids 5",
       "cancelcpu=1 cancelio=0 cancelthread=1 bindtids=[5]", 0, 7},
  };
  for (const auto& c : cases) {
    for (const bool udp : {false, true}) {
      SCOPED_TRACE(std::string(udp ? "udp " : "socket ") + c.arguments);
      const int status = udp ? c.udpStatus : c.socketStatus;
      const auto before = m_running.linesWith(c.line).size();
      const ToolRun run = tool((udp ? byUdp() : bySocket()) + "--tid 99 --timestamp 123 " + c.arguments);
      EXPECT_EQ(run.exitCode, status == 0 ? 0 : 1) << run.output;
      EXPECT_EQ(countOf(run.output, " status " + std::to_string(status) + " timestamp 123"), 1) << run.output;
      const auto lines = m_running.linesWith(c.line);
      // Over UDP a stall of half a second may deliver a first message twice.
      ASSERT_GE(lines.size(), before + 1);
      if (!udp) {
        EXPECT_EQ(lines.size(), before + 1);
      }
      EXPECT_NE(lines.back().find(udp ? " udp=127.0.0.1:" : " pid="), std::string::npos) << lines.back();
      EXPECT_NE(lines.back().find(" tid=99"), std::string::npos) << lines.back();
    }
  }
}

TEST_F(ToolAndService, ExitCodesTellScriptsWhatHappened) {
  FakeService mute(uniqueName());
  const struct {
    std::string arguments;
    int exitCode;
    const char* says;
  } cases[] = {
      {"--help", 0, "request-cpu-high-freq"},
      {bySocket() + "request-cpu-high-freq --help", 0, "--timeoutms"},
      {bySocket(), 2, "subcommand"},
      {"check-permission", 2, "--socket"},
      {bySocket() + byUdp() + "check-permission", 2, "--udp"},
      {"--udp 127.0.0.1 check-permission", 2, "no IPv4 address and port"},
      {bySocket() + "request-cpu-high-freq --timeoutms 5", 2, "--level"},
      {bySocket() + "request-cpu-high-freq --level two --timeoutms 5", 2, "--level"},
      {bySocket() + "--wait 0 check-permission", 2, "--wait"},
      {"--socket " + uniqueName() + " check-permission", 3, "is it running?"},
      {"--socket " + mute.name() + " check-permission", 4, "no answer"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ToolRun run = tool(c.arguments);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.output;
    EXPECT_NE(run.output.find(c.says), std::string::npos) << run.output;
  }
}

TEST_F(ToolAndService, RepeatedRequestsAreAllAnswered) {
  for (const std::string& where : {bySocket(), byUdp()}) {
    const ToolRun run = tool(where + "--repeat 200 reset-screen-resolution");
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_GE(countOf(run.output, "reply 1009 status 0"), 200) << where;
  }
}

TEST_F(ToolAndService, ThousandsOfFileNamesTravelInOneRequest) {
  const std::string names = "yes /etc/passwd | head -n 20000 | ";  // 280,000 bytes: 280 datagrams
  for (const std::string& where : {bySocket(), byUdp()}) {
    const ToolRun run =
        tool(where + "register-boot-preload-resource --file /etc/group --files-from -", names);
    EXPECT_EQ(run.exitCode, 1) << run.output;  // partly: the service looks at the first few thousand
  }
  EXPECT_EQ(m_running.linesWith("files=20001 [\"/etc/group\", \"/etc/passwd\"").size(), 2u);
}

TEST(Tool, ShowsPushesAsTheyComeOnBothTransports) {
  service::ServerOptions options;
  options.onRegister = {{7, "a\"b"}, {-8, ""}};
  options.repeat = {{{9, "again"}, 20, 0}};
  RunningService running({}, withUdp(options));
  for (const std::string& where : {"--socket " + running.name(), "--udp " + running.server().udpAddress()}) {
    const ToolRun run = tool(where + " --wait 1000 register-anr-callback");
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(countOf(run.output, "push code 7 data \"a\\x22b\" (3 bytes)"), 1) << run.output;
    EXPECT_EQ(countOf(run.output, "push code -8 data \"\" (0 bytes)"), 1) << run.output;
    EXPECT_GE(countOf(run.output, "push code 9 data \"again\""), 2) << run.output;
    EXPECT_EQ(countOf(run.output, "reply 1010 status 0"), 1) << "the empty replies between are not shown";
  }
}

TEST(Tool, IsEndedByTheServiceOnlyWhereThatKnowsIt) {
  service::Policy policy;
  policy.allowTerminate = true;
  RunningService running(policy, withUdp());
  EXPECT_EQ(tool("--udp " + running.server().udpAddress() + " terminate-app").exitCode, 1);
  // A shell that goes on behind the tool reports the signal as 128 + its number.
  const ToolRun ended = tool("--socket " + running.name() + " --wait 20000 terminate-app; echo \"rc $?\"");
  EXPECT_NE(ended.output.find("rc " + std::to_string(128 + SIGTERM)), std::string::npos) << ended.output;
}

TEST(ServiceProgram, SaysWhatIsWrongWithItsOptionsAndEndsWell) {
  RunningService running({}, withUdp());
  const struct {
    std::string arguments;
    int exitCode;
    const char* says;
  } cases[] = {
      {"--help", 0, "--push-on-register"},
      {"", 2, "nowhere to listen"},
      {"--name x --status 1002", 2, "a '=' is missing"},
      {"--name x --status 65536=1", 2, "is no number from 0 to 65535"},
      {"--name x --push-every 0:7:text", 2, "is no time"},
      {"--name x --push-on-register text", 2, "a ':' is missing"},
      {"--udp localhost:1", 2, "no IPv4 address"},
      {"--name " + running.name(), 1, "is in use"},
      {"--udp " + running.server().udpAddress(), 1, "is in use"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ToolRun run = shell(TARNBOOSTER_SERVICE " " + c.arguments);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.output;
    EXPECT_NE(run.output.find(c.says), std::string::npos) << run.output;
  }
  // In a shell that waits until it is ready, ends it, and tells how it ended.
  const ToolRun ended = shell("exec 3>&1; { " TARNBOOSTER_SERVICE
                              " --udp 127.0.0.1:0 & echo $!; wait $!; "
                              "echo rc $? >&3; } | { read pid; read line; echo $line >&3; kill $pid; cat; }");
  EXPECT_NE(ended.output.find("listening on udp 127.0.0.1:"), std::string::npos) << ended.output;
  EXPECT_NE(ended.output.find("rc 0"), std::string::npos) << ended.output;
}

// ---- UDP alone -------------------------------------------------------------------------------------------

/// A peer on a plain UDP socket that sends one message and then never acknowledges anything.
class VanishedPeer {
 public:
  VanishedPeer() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~VanishedPeer() { close(m_fd); }
  VanishedPeer(const VanishedPeer&) = delete;
  VanishedPeer& operator=(const VanishedPeer&) = delete;

  void send(const std::string& service, const Bytes& message) const {
    sockaddr_in to{};
    ASSERT_TRUE(service::UdpPort::parseAddress(service, to));
    const auto packet = newPacket();
    sealPacket(*packet, PACKET_SYN, 100000);
    sendTo(to, *packet);
    clearHeader(*packet);
    packet->dataLength = static_cast<uint16_t>(message.size());
    packet->totalLength = packet->dataLength;
    packet->sessionId = 1;
    memcpy(packet->payload, message.data(), message.size());
    sealPacket(*packet, PACKET_DATA, 100001);
    sendTo(to, *packet);
  }

 private:
  void sendTo(const sockaddr_in& to, const UdpPkg& packet) const {
    EXPECT_EQ(
        sendto(m_fd, &packet, packet.wireLength(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)),
        static_cast<ssize_t>(packet.wireLength()));
  }
  const int m_fd;
};

TEST(ServiceUdp, PeersThatVanishStopNobodyAndAreForgotten) {
  service::ServerOptions options = withUdp();
  options.repeat = {{{9, "again"}, 1, 0}};  // more replies than any queue has places
  options.udpTiming.intervalMs = 50;
  RunningService running({}, options);
  const std::string address = running.server().udpAddress();
  std::vector<VanishedPeer> vanished(3);
  for (const VanishedPeer& peer : vanished) peer.send(address, request(1010));
  EXPECT_TRUE(eventually([&] { return running.linesWith("1010 registerANRCallback udp=").size() == 3; }));
  EXPECT_EQ(tool("--udp " + address + " check-permission").exitCode, 0);
  EXPECT_EQ(BytesClient(running.name()).ask(1003), 0u);
  EXPECT_TRUE(
      eventually([&] { return running.linesWith("it does not acknowledge its replies").size() == 3; }));
  EXPECT_EQ(tool("--udp " + address + " check-permission").exitCode, 0);
}

TEST(ServiceUdp, OnlySoManyPeersAreRemembered) {
  RunningService running({}, withUdp());
  const std::string address = running.server().udpAddress();
  std::vector<VanishedPeer> peers(service::kMaxUdpPeers + 1);
  for (const VanishedPeer& peer : peers) peer.send(address, request(1009));
  EXPECT_TRUE(running.says("others need its place"));
  EXPECT_EQ(tool("--udp " + address + " check-permission").exitCode, 0);
}

TEST(ServiceUdp, BadMessagesAreIgnoredWithALine) {
  Bytes wrongMagic = request(1003);
  wrongMagic[0] = 'X';
  const struct {
    Bytes message;
    const char* line;
  } cases[] = {
      {"short", "a message of 5 bytes holds no request header"},
      {wrongMagic, "magic 0x48444358"},
      {request(1003) + "more", "announces 0 body bytes, 4 follow"},
      {request(1008, "xx"), "are not its message"},
  };
  RunningService running({}, withUdp());
  const std::string address = running.server().udpAddress();
  for (const auto& c : cases) {
    VanishedPeer().send(address, c.message);
    EXPECT_TRUE(running.says(c.line)) << c.line;
  }
  EXPECT_EQ(tool("--udp " + address + " check-permission").exitCode, 0);
}

TEST(ServiceUdp, AddressesAreReadWholeOrNotAtAll) {
  for (const char* bad : {"", ":", "127.0.0.1", "127.0.0.1:", ":80", "127.0.0.1:65536", "127.0.0.1:-1",
                          "localhost:80", "127.0.0.1:80x", "::1:80"}) {
    sockaddr_in address{};
    EXPECT_FALSE(service::UdpPort::parseAddress(bad, address)) << bad;
  }
  sockaddr_in address{};
  EXPECT_TRUE(service::UdpPort::parseAddress("0.0.0.0:65535", address));
  EXPECT_EQ(address.sin_port, htons(65535));
}

}  // namespace
