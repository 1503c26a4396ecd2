// What several tests need: waiting, names, bytes from text, a service's end of a socket.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "base/bytes.h"

using Bytes = std::string;

inline const uint8_t* at(const Bytes& bytes, size_t offset = 0) {
  return reinterpret_cast<const uint8_t*>(bytes.data()) + offset;
}

/// How long the waits below last when what they wait for does not come.
inline std::chrono::milliseconds g_patience{20'000};

/// Waits until `condition` holds, at most g_patience. The result is the condition's.
inline bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + g_patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// The state ('S' sleeps, 'R' runs) of this process's thread of that name; 0 when there is none.
inline char stateOf(const std::string& thread) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name, status;
    std::getline(std::ifstream(entry.path() / "comm"), name);
    std::getline(std::ifstream(entry.path() / "stat"), status);
    if (name == thread && status.size() > status.rfind(')') + 2) return status[status.rfind(')') + 2];
  }
  return 0;
}

/// Bytes from hexadecimal digits; blanks are ignored.
inline Bytes hex(std::string digits) {
  digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
  Bytes bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

/// An abstract name that no other test uses.
inline std::string uniqueName() {
  static std::atomic<int> count{0};
  return "tarn-test-" + std::to_string(getpid()) + "-" + std::to_string(count++);
}

/// The address of an abstract name, and its length.
inline std::pair<sockaddr_un, socklen_t> abstractAddress(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, name.data(), name.size());
  return {address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())};
}

/// A plain client connected to an abstract name, itself bound to `local` if that is not empty.
inline int plainClient(const std::string& name, const std::string& local = "") {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto [own, ownLength] = abstractAddress(local);
  if (!local.empty()) {
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&own), ownLength), 0);
  }
  const auto [to, length] = abstractAddress(name);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&to), length), 0) << strerror(errno);
  return fd;
}

/// A reply packet as the service writes it.
inline Bytes reply(uint16_t funcid, uint32_t status, const Bytes& body = "", int64_t timestamp = 0,
                   uint64_t word16 = 0) {
  uint8_t header[32] = {'R', 'C', 'D', 'H', 4, 0};
  write16le(header + 6, funcid);
  write32le(header + 8, status);
  write32le(header + 12, static_cast<uint32_t>(body.size()));
  write64le(header + 16, word16);
  write64le(header + 24, static_cast<uint64_t>(timestamp));
  return Bytes(reinterpret_cast<char*>(header), sizeof(header)) + body;
}

/// A connection on a plain socket.
class Connection {
 public:
  ~Connection() { hangUp(); }
  /// Exactly `count` bytes, or fewer when the connection ends or g_patience passes without any.
  Bytes read(size_t count) {
    Bytes bytes;
    while (bytes.size() < count) {
      pollfd waiting = {m_connection, POLLIN, 0};
      if (poll(&waiting, 1, static_cast<int>(g_patience.count())) != 1) break;
      char buffer[65536];
      const ssize_t got = recv(m_connection, buffer, std::min(sizeof(buffer), count - bytes.size()), 0);
      if (got <= 0) break;
      bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
  }
  /// False when the other end has closed.
  bool write(const Bytes& bytes) {
    for (size_t done = 0; done < bytes.size();) {
      const ssize_t put = send(m_connection, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (put <= 0) return false;
      done += static_cast<size_t>(put);
    }
    return true;
  }
  /// Sends a byte out of band, which an ordinary reader does not get.
  void urge() { send(m_connection, "!", 1, MSG_OOB | MSG_NOSIGNAL); }
  /// Closes the sending half.
  void finish() { shutdown(m_connection, SHUT_WR); }
  void hangUp() {
    if (m_connection >= 0) close(m_connection);
    m_connection = -1;
  }

 protected:
  int m_connection = -1;
};

/// The service's end: a listener on an abstract name and the connection it accepted last.
class FakeService : public Connection {
 public:
  explicit FakeService(std::string name, int backlog = 16) : m_name(std::move(name)) {
    const auto [address, length] = abstractAddress(m_name);
    EXPECT_EQ(bind(m_listener, reinterpret_cast<const sockaddr*>(&address), length), 0) << strerror(errno);
    EXPECT_EQ(listen(m_listener, backlog), 0);
  }
  ~FakeService() { stop(); }

  const std::string& name() const { return m_name; }
  int listener() const { return m_listener; }
  /// Waits for the next connection (20 seconds at most); closes the one before. False when none came.
  bool accept() {
    hangUp();
    pollfd waiting = {m_listener, POLLIN, 0};
    if (poll(&waiting, 1, 20000) != 1) return false;
    m_connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    return m_connection >= 0;
  }
  /// One whole request: its header and body.
  Bytes readRequest() {
    Bytes packet = read(32);
    if (packet.size() == 32) packet += read(read32le(at(packet, 8)));
    return packet;
  }
  /// Closes the connection and the listener: the service is gone.
  void stop() {
    hangUp();
    if (m_listener >= 0) close(m_listener);
    m_listener = -1;
  }

 private:
  std::string m_name;
  int m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};
