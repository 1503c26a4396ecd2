// What several tests need: waiting, names, bytes from text, a service's end of a socket.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>

using Bytes = std::string;

/// Waits until `condition` holds, at most `seconds`. The result is the condition's.
inline bool eventually(const std::function<bool()>& condition, int seconds = 20) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// Bytes from hexadecimal digits; blanks are ignored.
Bytes hex(const std::string& digits);

/// An abstract name that no other test uses.
std::string uniqueName();

/// The address of an abstract name, and its length.
std::pair<sockaddr_un, socklen_t> abstractAddress(const std::string& name);

/// A reply packet as the service writes it.
Bytes reply(uint16_t funcid, uint32_t status, const Bytes& body = "", int64_t timestamp = 0,
            uint64_t word16 = 0);

/// A connection on a plain socket.
class Connection {
 public:
  ~Connection() { hangUp(); }
  /// Exactly `count` bytes, or fewer when the connection ends or 20 seconds pass without any.
  Bytes read(size_t count);
  /// False when the other end has closed.
  bool write(const Bytes& bytes);
  void hangUp();

 protected:
  int m_connection = -1;
};

/// The service's end: a listener on an abstract name and the connection it accepted last.
class FakeService : public Connection {
 public:
  explicit FakeService(std::string name, int backlog = 16);
  ~FakeService() { stop(); }
  const std::string& name() const { return m_name; }
  /// Waits for the next connection (20 seconds at most); closes the one before. False when none came.
  bool accept();
  /// One whole request: its header and body.
  Bytes readRequest();
  /// Closes the connection and the listener: the service is gone.
  void stop();

 private:
  std::string m_name;
  int m_listener = -1;
};
