// An event loop of one thread: descriptors, what to do when they are ready, and when to look again.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "shared/UniqueFd.h"

namespace record {

class Loop {
 public:
  using Handler = std::function<void(uint32_t events)>;

  Loop();
  /// Whether the loop could be made.
  explicit operator bool() const { return static_cast<bool>(m_epoll); }

  /// Calls `handler` with the epoll events of fd, whatever `events` asks for, until remove(). Returns the
  /// watch's number, or 0 with errno when that cannot be. The descriptor may be closed once it is removed.
  uint64_t add(int fd, uint32_t events, Handler handler);
  /// Asks for other events.
  void change(uint64_t watch, uint32_t events);
  /// From now on the handler is not called; it may be removed by itself.
  void remove(uint64_t watch);

  /// Runs until stop(). Before each round `due` is called; its result says for how many milliseconds nothing
  /// is due (-1: nothing at all; 0: look at once).
  void run(const std::function<int()>& due);
  /// Ends run() after the round at hand; for handlers and `due`.
  void stop() { m_stopped = true; }

 private:
  struct Watch {
    int fd;
    Handler handler;
  };

  shared::UniqueFd m_epoll;
  std::unordered_map<uint64_t, std::shared_ptr<Watch>> m_watches;
  uint64_t m_last = 0;
  bool m_stopped = false;
};

}  // namespace record
