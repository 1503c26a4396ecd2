// The service of the benchmarks: a process of its own that reads what it is sent, and forgets or answers it.
#pragma once

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

/// Bytes of the request that every benchmark makes, its header included.
constexpr size_t kRequestBytes = 41;
constexpr size_t kReplyBytes = 32;

/// One object, peer(); its process ends with this one. A process, so that its processor time and its context
/// switches are not counted as ours.
class Peer {
 public:
  Peer() : m_name("tarn-bench-" + std::to_string(getpid())) {
    m_shared =
        new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, address(), length()) != 0 || listen(listener, 8) != 0) abort();
    if (fork() == 0) serve(listener);
    close(listener);
  }

  const std::string& name() const { return m_name; }
  /// Whether each request is answered with a reply of status 5 (one at a time, then) or with nothing.
  void answer(bool on) { m_shared->answers = on; }
  /// Bytes that have arrived over all connections.
  uint64_t received() const { return m_shared->received; }
  void await(uint64_t bytes) const {
    while (received() < bytes) std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  int connected() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, address(), length()) != 0) abort();
    return fd;
  }

 private:
  struct Shared {
    std::atomic<uint64_t> received{0};
    std::atomic<bool> answers{false};
  };

  [[noreturn]] void serve(int listener) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int fd = 0; (fd = accept(listener, nullptr, nullptr)) >= 0;) {
      std::thread([this, fd] {
        uint8_t bytes[65536];
        uint8_t reply[kReplyBytes] = {'R', 'C', 'D', 'H', 4, 0, 0xEA, 3, 5};
        for (ssize_t count = 0; (count = recv(fd, bytes, sizeof(bytes), 0)) > 0;) {
          m_shared->received += static_cast<uint64_t>(count);
          if (m_shared->answers && send(fd, reply, sizeof(reply), MSG_NOSIGNAL) < 0) break;
        }
        close(fd);
      }).detach();
    }
    _exit(0);
  }
  const sockaddr* address() {
    m_address.sun_family = AF_UNIX;
    memcpy(m_address.sun_path + 1, m_name.data(), m_name.size());
    return reinterpret_cast<const sockaddr*>(&m_address);
  }
  socklen_t length() const {
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + m_name.size());
  }

  const std::string m_name;
  sockaddr_un m_address{};
  Shared* m_shared;
};

inline Peer& peer() {
  static auto& instance = *new Peer;
  return instance;
}
