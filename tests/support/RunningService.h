// The reference service inside a test, and a client that talks to it in bytes.
#pragma once

#include <sys/syscall.h>

#include <fstream>
#include <future>
#include <mutex>
#include <optional>
#include <thread>

#include "service/server/Server.h"
#include "support/Udp.h"
#include "wire/header.h"

/// The service on a thread of its own, on both transports, and the lines that it says.
class RunningService {
 public:
  explicit RunningService(service::Policy policy = {}, service::ServerOptions options = {},
                          const service::BoostLimits& limits = {})
      : m_dispatcher(std::move(policy), m_log, limits) {
    m_name.resize(107, 'n');  // the longest there is
    options.name = m_name;
    options.udp = loopback();
    m_server.emplace(std::move(options), m_dispatcher, m_log);
    std::string problem;
    if (!m_server->start(problem)) throw std::runtime_error(problem);
    m_thread = std::thread([this] { m_server->run(); });
  }
  ~RunningService() { stop(); }

  void stop() {
    m_server->stop();
    if (m_thread.joinable()) m_thread.join();
  }
  const std::string& name() const { return m_name; }
  std::string udpAddress() const { return m_server->udpAddress(); }

  std::vector<std::string> linesWith(const std::string& text) const {
    const std::lock_guard<std::mutex> lock(m_lock);
    std::vector<std::string> found;
    std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(found),
                 [&](const std::string& line) { return line.find(text) != std::string::npos; });
    return found;
  }
  /// Waits until `count` lines contain `text`.
  bool says(const std::string& text, size_t count = 1) const {
    return eventually([&] { return linesWith(text).size() >= count; });
  }

 private:
  std::string m_name = uniqueName();
  mutable std::mutex m_lock;
  std::vector<std::string> m_lines;  // guarded by m_lock
  const service::Log m_log{service::Priority::DEBUG, [this](service::Priority, const std::string& line) {
                             const std::lock_guard<std::mutex> lock(m_lock);
                             m_lines.push_back(line);
                           }};
  service::Dispatcher m_dispatcher;
  std::optional<service::Server> m_server;
  std::thread m_thread;
};

/// A request of thread 77, sent at 1234567, as bytes.
inline Bytes request(uint16_t funcid, const Bytes& body = "", int64_t timestamp = 5) {
  uint8_t header[32] = {'R', 'C', 'D', 'H', 4, 0};
  write16le(header + 6, funcid);
  write32le(header + 8, static_cast<uint32_t>(body.size()));
  write64le(header + 12, 1234567);
  write32le(header + 20, 77);
  write64le(header + 24, static_cast<uint64_t>(timestamp));
  return Bytes(reinterpret_cast<char*>(header), sizeof(header)) + body;
}

/// The body of 1002, 1004 and 1006, which look alike: a level in the one place is a thread in the other.
inline Bytes boost(std::initializer_list<int> levelOrTids, int timeoutMs = 0) {
  amc::RequestCPUCoreForThread message;
  message.set_scene(1);
  for (const int number : levelOrTids) message.add_bindtids(number);
  message.set_timeout(timeoutMs);
  message.set_action(1);
  return message.SerializeAsString();
}

/// A client of the service on a plain socket.
class BytesClient : public Connection {
 public:
  explicit BytesClient(
      const std::string& name, const std::function<void()>& beforeConnecting = [] {}) {
    const auto [address, length] = abstractAddress(name);
    m_connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    beforeConnecting();
    EXPECT_EQ(connect(m_connection, reinterpret_cast<const sockaddr*>(&address), length), 0);
  }
  /// Makes a request and returns the status it is answered with.
  uint32_t ask(uint16_t funcid, const Bytes& body = "") {
    write(request(funcid, body));
    const Bytes answer = read(kHeaderBytes);
    if (answer.size() < kHeaderBytes) return UINT32_MAX;
    return readReplyHeader(reinterpret_cast<const uint8_t*>(answer.data())).status;
  }
  /// What is there already.
  Bytes readNow() const {
    Bytes bytes(65536, 0);
    bytes.resize(std::max<ssize_t>(recv(m_connection, bytes.data(), bytes.size(), MSG_DONTWAIT), 0));
    return bytes;
  }
};

/// A thread of this process that waits until the object ends.
struct ParkedThread {
  ~ParkedThread() { end.set_value(); }
  /// "0-2,5", as the system puts it.
  std::string cpus() const {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string word;
    while (status >> word && word != "Cpus_allowed_list:") continue;
    status >> word;
    return word;
  }
  long ioPriority() const { return syscall(SYS_ioprio_get, 1, tid); }

  std::promise<pid_t> started;
  std::promise<void> end;
  std::future<void> thread = std::async(std::launch::async, [this] {
    started.set_value(gettid());
    end.get_future().wait();
  });
  const pid_t tid = started.get_future().get();
};
