// Clients of the service that send anything, in any pieces, over real sockets: what each one is answered is
// read with the library's own reader and compared with what a literal reading of its bytes says.
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <optional>
#include <tuple>

#include "base/bytes.h"
#include "fuzz/Fuzz.h"
#include "local/ReplyReader.h"
#include "service/server/Server.h"
#include "wire/Funcid.h"

namespace {

constexpr uint16_t kScripted = 1009;
constexpr uint32_t kScriptedStatus = 77;
const service::Push kPush{7, "pushed"};

/// What one client is to be told: the identifier, the request's two numbers that come back, and whether there
/// is a body.
using Expected = std::tuple<uint16_t, uint64_t, int64_t, bool>;

/// One client, and the model of what the service owes it.
class Client {
 public:
  explicit Client(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size());
    FUZZ_CHECK(connect(m_fd, reinterpret_cast<sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())) == 0);
  }
  ~Client() { close(m_fd); }

  void send(const std::string& bytes) {
    if (m_ended || ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) return;
    m_sent += bytes;
    while (!m_bad && m_sent.size() >= 32) {
      const auto* const at = reinterpret_cast<const uint8_t*>(m_sent.data());
      const uint32_t length = read32le(at + 8);
      m_bad = m_sent.compare(0, 4, "RCDH") != 0 || read16le(at + 4) != 4 || length > 16 * 1024 * 1024;
      if (m_bad || m_sent.size() - 32 < length) break;
      service::RequestPacket packet;
      packet.funcid = read16le(at + 6);
      packet.body.assign(at + 32, at + 32 + length);
      service::Request request;
      std::string problem;
      m_bad = !service::decodeRequest(packet, request, problem);
      if (m_bad) break;
      m_expected.emplace_back(packet.funcid, read64le(at + 12), read64le(at + 24), false);
      if (packet.funcid == FUNCID_REGISTER_ANR_CALLBACK) m_expected.emplace_back(packet.funcid, 0, 0, true);
      m_sent.erase(0, 32 + length);
    }
  }

  void end() {
    if (!m_ended) shutdown(m_fd, SHUT_WR);
    m_ended = true;
  }

  /// Takes what is here. Whether there was something: with room again, the service may have more to send.
  bool read() {
    uint8_t bytes[4096];
    ssize_t got = 0;
    bool isMore = false;
    while ((got = recv(m_fd, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0) {
      for (size_t used = 0; used < static_cast<size_t>(got);) take(bytes, static_cast<size_t>(got), &used);
      isMore = true;
    }
    m_isOpen = got < 0 && errno == EAGAIN;
    return isMore;
  }

  /// After the service has done all it can: everything owed is here, and a client that sent nonsense, or has
  /// ended, is disconnected.
  void check() const {
    FUZZ_CHECK(m_expected.empty());
    FUZZ_CHECK(m_isOpen == !(m_bad || m_ended));
  }

 private:
  void take(const uint8_t* bytes, size_t count, size_t* used) {
    const ReplyReader::Result result = m_reader.read(bytes, count, used);
    if (result == ReplyReader::Result::NeedMore) return;
    FUZZ_CHECK(result == ReplyReader::Result::Complete && !m_expected.empty());
    const ReplyHeader& header = m_reader.header();
    FUZZ_CHECK(m_expected.front() ==
               Expected(header.funcid, header.word16, header.timestamp, header.dataLen > 0));
    if (header.funcid == kScripted) FUZZ_CHECK(header.status == kScriptedStatus);
    const bool isKnown = header.funcid >= 1001 && header.funcid <= 1014;
    FUZZ_CHECK(isKnown == (header.status != service::Status::UNKNOWN_REQUEST));
    amc::DataCallback push;
    FUZZ_CHECK(header.dataLen == 0 ||
               (push.ParseFromArray(m_reader.body(), static_cast<int>(header.dataLen)) &&
                push.code() == kPush.code && push.data() == kPush.data));
    m_reader.next();
    m_expected.pop_front();
  }

  const int m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string m_sent;  // and not yet taken as a request
  bool m_bad = false, m_ended = false, m_isOpen = true;
  std::deque<Expected> m_expected;
  ReplyReader m_reader;
};

/// The body of a boost, or of a cancel, that is about a thread of this process: it has an effect.
std::string makeBoost(FuzzedDataProvider& input) {
  amc::RequestUnifyCPUIOThreadCore boost;
  boost.set_scene(input.ConsumeIntegralInRange<int>(0, 1));
  boost.set_cpulevel(input.ConsumeIntegralInRange<int>(-1, 1));
  boost.set_iolevel(input.ConsumeIntegralInRange<int>(-1, 3));
  if (input.ConsumeBool()) boost.add_bindtids(gettid());
  boost.set_timeout(input.ConsumeIntegralInRange<int>(-1, 1));
  boost.set_action(1);
  return boost.SerializePartialAsString();
}

std::string makeBytes(FuzzedDataProvider& input) {
  const auto kind = input.ConsumeIntegralInRange<int>(0, 9);
  if (kind == 0) return input.ConsumeRandomLengthString(80);
  const std::string body = kind < 4   ? ""
                           : kind < 5 ? makeBoost(input)
                                      : input.ConsumeRandomLengthString(kind == 9 ? 400 : 40);
  uint8_t header[32] = {'R', 'C', 'D', 'H', 4};
  write16le(header + 6, static_cast<uint16_t>(1000 + input.ConsumeIntegralInRange<int>(0, 15)));
  write32le(header + 8, kind == 3 ? input.ConsumeIntegral<uint32_t>() : static_cast<uint32_t>(body.size()));
  write64le(header + 12, input.ConsumeIntegral<uint8_t>());
  write32le(header + 20, kind);
  write64le(header + 24, input.ConsumeIntegral<uint8_t>());
  return std::string(reinterpret_cast<char*>(header), sizeof(header)) + body;
}

/// Every line stays one line, whatever the clients put into it.
void checkLine(service::Priority /*priority*/, const std::string& line) {
  for (const char byte : line) FUZZ_CHECK(static_cast<uint8_t>(byte) >= ' ');
}

struct Service {
  const std::string name = "tarn-service-fuzzer-" + std::to_string(getpid());
  const service::Log log{service::Priority::DEBUG, checkLine};
  service::Dispatcher dispatcher{{{{kScripted, kScriptedStatus}}, false, "/nonexistent"}, log};
  std::optional<service::Server> server;
  Service() {
    service::ServerOptions options;
    options.name = name;
    options.onRegister = {kPush};
    server.emplace(std::move(options), dispatcher, log);
    std::string problem;
    FUZZ_CHECK(server->start(problem));
  }
  void settle() {
    // A round without events may have served some of the requests that wait; only after the last is more
    // read.
    for (int idle = 0; idle < 40; ++idle) {
      if (server->round(0) || !dispatcher.preloads().isIdle()) idle = 0;
    }
  }
  void settleAndCheck(Client& client) {
    do settle();
    while (client.read());
    client.check();
  }
};

int freeDescriptor() {
  const int descriptor = dup(0);
  close(descriptor);
  return descriptor;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Service service;
  const int next = freeDescriptor();
  cpu_set_t before, after;
  sched_getaffinity(0, sizeof(before), &before);
  FuzzedDataProvider input(data, size);
  {
    std::optional<Client> clients[3];
    std::string waiting[3];  // bytes made and not yet sent
    while (input.remaining_bytes() > 0) {
      const size_t i = input.ConsumeIntegralInRange<size_t>(0, 2);
      const auto what = input.ConsumeIntegralInRange<int>(0, 7);
      if (what == 1 || !clients[i]) {
        clients[i].emplace(service.name);
        waiting[i].clear();
      }
      if (what == 0) clients[i]->end();
      if (what == 2) service.settleAndCheck(*clients[i]);
      if (what > 2) {
        waiting[i] += makeBytes(input);
        const size_t count = std::min(waiting[i].size(), input.ConsumeIntegralInRange<size_t>(1, 200));
        clients[i]->send(waiting[i].substr(0, count));
        waiting[i].erase(0, count);
      }
      if (input.ConsumeBool()) service.settle();
    }
    for (auto& client : clients) {
      if (client) service.settleAndCheck(*client);
    }
  }
  service.settle();
  FUZZ_CHECK(service.dispatcher.boosts().size() == 0);
  sched_getaffinity(0, sizeof(after), &after);
  FUZZ_CHECK(CPU_EQUAL(&before, &after));
  FUZZ_CHECK(freeDescriptor() == next);  // those of all clients are closed
  return 0;
}
