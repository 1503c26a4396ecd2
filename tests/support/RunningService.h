// The reference service inside a test, and plain sockets that talk to it in bytes.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Server.h"
#include "bytes.h"
#include "header.h"
#include "support/Support.h"

/// The service on a thread of its own, and the lines that it says.
class RunningService {
 public:
  explicit RunningService(service::Policy policy = {}, service::ServerOptions options = {})
      : m_journal(service::Verbosity::Verbose, [this](const std::string& line) { add(line); }),
        m_dispatcher(std::move(policy), m_journal),
        m_server(named(std::move(options)), m_dispatcher, m_journal) {
    std::string problem;
    m_started = m_server.start(problem);
    EXPECT_TRUE(m_started) << problem;
    if (m_started) m_thread = std::thread([this] { m_server.run(); });
  }
  ~RunningService() { stop(); }

  void stop() {
    m_server.stop();
    if (m_thread.joinable()) m_thread.join();
  }
  const std::string& name() const { return m_name; }
  service::Server& server() { return m_server; }

  std::vector<std::string> linesWith(const std::string& text) const {
    const std::lock_guard<std::mutex> lock(m_lock);
    std::vector<std::string> found;
    std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(found),
                 [&](const std::string& line) { return line.find(text) != std::string::npos; });
    return found;
  }
  /// Waits until a line contains `text`.
  bool says(const std::string& text) const {
    return eventually([&] { return !linesWith(text).empty(); });
  }

 private:
  service::ServerOptions named(service::ServerOptions options) {
    options.name = m_name;
    return options;
  }
  void add(const std::string& line) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_lines.push_back(line);
  }

  const std::string m_name = uniqueName();
  mutable std::mutex m_lock;
  std::vector<std::string> m_lines;  // guarded by m_lock
  service::Journal m_journal;
  service::Dispatcher m_dispatcher;
  service::Server m_server;
  bool m_started = false;
  std::thread m_thread;
};

/// A request as bytes.
inline Bytes request(uint16_t funcid, const Bytes& body = "", uint32_t tid = 77, int64_t timestamp = 5) {
  uint8_t header[kHeaderBytes];
  write32le(header + request_header::kMagic, 0x48444352);
  write16le(header + request_header::kVersion, 4);
  write16le(header + request_header::kFuncid, funcid);
  write32le(header + request_header::kDataLen, static_cast<uint32_t>(body.size()));
  write64le(header + request_header::kSendTime, 1234567);
  write32le(header + request_header::kCallertid, tid);
  write64le(header + request_header::kTimestamp, static_cast<uint64_t>(timestamp));
  return Bytes(reinterpret_cast<char*>(header), sizeof(header)) + body;
}

/// A client of the service on a plain socket. Reads give up after 20 seconds.
class BytesClient {
 public:
  explicit BytesClient(const std::string& name) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    const timeval patience{20, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    EXPECT_EQ(connect(m_fd, reinterpret_cast<sockaddr*>(&address), length), 0) << strerror(errno);
  }
  ~BytesClient() { hangUp(); }

  bool send(const Bytes& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
      const ssize_t count = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count < 0) return false;
      sent += static_cast<size_t>(count);
    }
    return true;
  }
  /// `count` bytes, or fewer when the service closes the connection.
  Bytes read(size_t count) {
    Bytes bytes(count, '\0');
    size_t got = 0;
    while (got < count) {
      const ssize_t n = recv(m_fd, &bytes[got], count - got, 0);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    bytes.resize(got);
    return bytes;
  }
  /// Makes a request and returns the status it is answered with.
  uint32_t ask(uint16_t funcid, const Bytes& body = "") {
    if (!send(request(funcid, body))) return UINT32_MAX;
    const Bytes answer = read(kHeaderBytes);
    if (answer.size() < kHeaderBytes) return UINT32_MAX;
    return readReplyHeader(reinterpret_cast<const uint8_t*>(answer.data())).status;
  }
  /// Whether the service has closed the connection (everything before is skipped).
  bool isClosed() {
    char byte;
    ssize_t count;
    while ((count = recv(m_fd, &byte, 1, 0)) > 0) {
    }
    return count == 0 || errno == ECONNRESET;
  }
  void hangUp() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
  }

 private:
  int m_fd;
};
