// A service of a few lines that does one thing wrong: what the checker is to find.
#pragma once

#include <fcntl.h>
#include <sched.h>

#include <map>
#include <set>

#include "support/Support.h"
#include "wire/Funcid.h"
#include "wire/protos/amc.pb.h"

enum class Wrong {
  NOTHING,
  TIME_STAMP_OF_32_BITS,
  WANTS_A_SEND_TIME,
  ANSWERS_THE_LAST_CLIENT,
  WAITS_FOR_A_QUIET_MOMENT,  // holds answers back while part of a request is there
  BELIEVES_1001_HAS_NO_BODY,
  DEAF_TO_LONG_BODIES,
  DIES_OF_LENGTHS,
  DIES_OF_MAGIC,
  DIES_OF_VERSIONS,
  DEAF_AFTER_UNKNOWN,
  TAKES_ANY_BODY,
  DIES_OF_NEGATIVE_LEVELS,
  DIES_OF_CUT_REQUESTS,
  DIES_OF_VANISHED_CLIENTS,
  KEEPS_DESCRIPTORS,
  SERVES_EIGHT,
  SERVES_ONE_AFTER_THE_OTHER,
  WAITS_FOR_READERS,
  PUSHES_TO_ALL,
  PUSHES_NOISE,
  DIES_OF_REGISTERED_AND_GONE,
  NEVER_CANCELS,
  NEVER_EXPIRES,
  BINDS_ANYBODY,
  FORGETS_ON_HALF_CLOSE,
};

class TinyService {
 public:
  explicit TinyService(Wrong wrong) : m_wrong(wrong) {
    const auto [address, length] = abstractAddress(m_name);
    EXPECT_EQ(bind(m_listener, reinterpret_cast<const sockaddr*>(&address), length), 0);
    EXPECT_EQ(listen(m_listener, 1024), 0);
    m_thread = std::thread([this] { run(); });
  }
  ~TinyService() {
    m_stop = true;
    m_thread.join();
    for (const auto& [fd, client] : m_clients) close(fd);
    close(m_listener);
  }
  const std::string& name() const { return m_name; }

 private:
  struct Client {
    Bytes in, out;
    bool registered = false, deaf = false, gone = false;
  };
  struct Bound {
    cpu_set_t before;
    std::map<int, std::chrono::steady_clock::time_point> until;  // by client
  };
  using Clock = std::chrono::steady_clock;

  bool is(Wrong wrong) const { return m_wrong == wrong; }

  void run() {
    for (auto nextPush = Clock::now(); !m_stop;) {
      if (m_dead) {
        usleep(1000);
        continue;
      }
      std::vector<pollfd> ready = {{m_listener, POLLIN, 0}};
      for (auto& [fd, client] : m_clients) {
        const bool waits = is(Wrong::SERVES_ONE_AFTER_THE_OTHER) && fd != m_clients.begin()->first;
        if (!waits && !client.gone)
          ready.push_back({fd, short(client.out.empty() ? POLLIN : POLLIN | POLLOUT), 0});
      }
      poll(ready.data(), ready.size(), 5);
      if (ready[0].revents != 0) admit(accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC));
      for (size_t i = 1; i < ready.size() && !m_dead; ++i) {
        if (ready[i].revents != 0) serve(ready[i].fd);
      }
      if (Clock::now() >= nextPush) {
        nextPush = Clock::now() + std::chrono::milliseconds(20);
        for (auto& [fd, client] : m_clients) {
          if (client.registered || is(Wrong::PUSHES_TO_ALL)) push(client);
        }
      }
      if (!is(Wrong::NEVER_EXPIRES)) unbind([](int, auto until) { return until < Clock::now(); });
    }
  }

  void admit(int fd) {
    if (fd < 0) return;
    if (is(Wrong::SERVES_EIGHT) && m_clients.size() >= 8) {
      close(fd);
      return;
    }
    m_clients[fd] = {};
    m_last = fd;
    m_dead = m_clients.size() > 200;
  }

  void serve(int fd) {
    Client& client = m_clients[fd];
    flush(fd, client);
    if (is(Wrong::FORGETS_ON_HALF_CLOSE)) usleep(20000);  // so that the end is there with the request
    char bytes[65536];
    const ssize_t count = client.deaf ? -2 : recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (count > 0) client.in.append(bytes, static_cast<size_t>(count));
    bool stays = count > 0 || count == -2 || (count < 0 && errno == EAGAIN);
    if (is(Wrong::FORGETS_ON_HALF_CLOSE)) stays = recv(fd, bytes, 1, MSG_DONTWAIT | MSG_PEEK) != 0;
    if (stays || !is(Wrong::FORGETS_ON_HALF_CLOSE)) stays = serveAll(fd, client) && stays;
    flush(fd, client);
    if (stays) return;
    if (is(Wrong::DIES_OF_CUT_REQUESTS) && !client.in.empty()) m_dead = true;
    if (is(Wrong::DIES_OF_REGISTERED_AND_GONE) && client.registered) m_dead = true;
    unbind([&](int holder, auto) { return holder == fd; });
    client.gone = true;
    if (is(Wrong::KEEPS_DESCRIPTORS)) return;
    m_clients.erase(fd);
    close(fd);
  }

  /// Answers whole requests. False to close the connection.
  bool serveAll(int fd, Client& client) {
    Bytes answers;
    while (client.in.size() >= 32) {
      const auto* const header = reinterpret_cast<const uint8_t*>(client.in.data());
      const uint16_t funcid = read16le(header + 6);
      if (client.in.compare(0, 4, "RCDH") != 0) return die(Wrong::DIES_OF_MAGIC);
      if (read16le(header + 4) != 4) return die(Wrong::DIES_OF_VERSIONS);
      if (is(Wrong::WANTS_A_SEND_TIME) && read64le(header + 12) == 0) return false;
      size_t length = read32le(header + 8);
      if (funcid == 1001 && is(Wrong::BELIEVES_1001_HAS_NO_BODY)) length = 0;
      if (length > size_t{16} << 20) return die(Wrong::DIES_OF_LENGTHS);
      if (length > 65536 && is(Wrong::DEAF_TO_LONG_BODIES)) client.deaf = true;
      if (client.in.size() < 32 + length) break;
      const uint64_t timestamp = read64le(header + 24);
      uint32_t status = 0;
      if (!handle(fd, client, funcid, client.in.substr(32, length), status)) return false;
      client.in.erase(0, 32 + length);
      const bool cut = is(Wrong::TIME_STAMP_OF_32_BITS);
      answers += reply(funcid, status, "", int64_t(cut ? uint32_t(timestamp) : timestamp));
    }
    if (is(Wrong::WAITS_FOR_A_QUIET_MOMENT) && !client.in.empty()) {
      client.out.clear();
      m_held[fd] += answers;
      return true;
    }
    const int to = is(Wrong::ANSWERS_THE_LAST_CLIENT) && m_clients.count(m_last) != 0 ? m_last : fd;
    m_clients[to].out += m_held[fd] + answers;
    m_held.erase(fd);
    return true;
  }

  bool die(Wrong wrong) {
    if (is(wrong)) m_dead = true;
    return false;
  }

  template <class Message>
  bool reads(Message& message, const Bytes& body) {
    return (message.ParsePartialFromString(body) && message.IsInitialized()) || is(Wrong::TAKES_ANY_BODY);
  }

  bool handle(int fd, Client& client, uint16_t funcid, const Bytes& body, uint32_t& status) {
    amc::RequestCPUHighFreq boost;
    amc::RequestCPUCoreForThread bind;
    amc::CancelCPUCoreForThread cancel;
    amc::RequestScreenResolution screen;
    switch (funcid) {
      case FUNCID_REQUEST_CPU_HIGH_FREQ:
      case FUNCID_REQUEST_HIGH_IO_FREQ:
        if (boost.ParsePartialFromString(body) && boost.level() < 0) die(Wrong::DIES_OF_NEGATIVE_LEVELS);
        return reads(boost, body);
      case FUNCID_REQUEST_CPU_CORE_FOR_THREAD:
        if (!reads(bind, body)) return false;
        for (const int tid : bind.bindtids()) status = bindThread(fd, tid, bind.timeout()) ? status : 6;
        return true;
      case FUNCID_CANCEL_CPU_CORE_FOR_THREAD:
        if (is(Wrong::NEVER_CANCELS)) return true;
        unbind([&](int holder, auto) { return holder == fd; });
        return reads(cancel, body);
      case FUNCID_REQUEST_SCREEN_RESOLUTION:
        return reads(screen, body);
      case FUNCID_REGISTER_ANR_CALLBACK:
        return client.registered = true;
    }
    if (funcid >= 1001 && funcid <= 1014) return true;
    client.deaf = is(Wrong::DEAF_AFTER_UNKNOWN);
    status = 2;
    return true;
  }

  bool bindThread(int fd, int tid, int timeout) {
    const bool ours = access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0;
    if (!ours && !is(Wrong::BINDS_ANYBODY)) return false;
    Bound& bound = m_bound[tid];
    if (bound.until.empty()) sched_getaffinity(tid, sizeof(cpu_set_t), &bound.before);
    bound.until[fd] =
        Clock::now() + (timeout == 0 ? std::chrono::hours(1) : std::chrono::milliseconds(timeout));
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; CPU_COUNT(&one) == 0; ++cpu) {
      if (CPU_ISSET(cpu, &bound.before)) CPU_SET(cpu, &one);
    }
    return sched_setaffinity(tid, sizeof(one), &one) == 0;
  }

  template <class Ends>
  void unbind(Ends ends) {
    for (auto& [tid, bound] : m_bound) {
      const bool was = !bound.until.empty();
      for (auto held = bound.until.begin(); held != bound.until.end();) {
        held = ends(held->first, held->second) ? bound.until.erase(held) : std::next(held);
      }
      if (was && bound.until.empty()) sched_setaffinity(tid, sizeof(cpu_set_t), &bound.before);
    }
  }

  void push(Client& client) {
    const Bytes body = is(Wrong::PUSHES_NOISE) ? Bytes("\x08") : Bytes("\x08\x07\x12\x01x");
    client.out += reply(1010, 0, body) + reply(1010, 0);
  }

  void flush(int fd, Client& client) {
    while (!client.out.empty()) {
      const int flags = is(Wrong::WAITS_FOR_READERS) ? MSG_NOSIGNAL : MSG_NOSIGNAL | MSG_DONTWAIT;
      const ssize_t count = send(fd, client.out.data(), client.out.size(), flags);
      if (count < 0 && errno == EAGAIN) return;
      if (count < 0 && is(Wrong::DIES_OF_VANISHED_CLIENTS)) m_dead = true;
      client.out.erase(0, count < 0 ? client.out.size() : static_cast<size_t>(count));
    }
  }

  const Wrong m_wrong;
  const std::string m_name = uniqueName();
  const int m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::map<int, Client> m_clients;  // all from here on: the thread's
  std::map<int, Bytes> m_held;
  std::map<int, Bound> m_bound;  // by thread
  int m_last = -1;
  bool m_dead = false;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};
