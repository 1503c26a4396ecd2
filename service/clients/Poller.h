// What the server's thread waits for: descriptors, each under a number.
#pragma once

#include <sys/epoll.h>

#include <cstdint>

#include "shared/UniqueFd.h"

namespace service {

class Poller {
 public:
  Poller();
  bool isOpen() const { return static_cast<bool>(m_epoll); }

  /// From now on waits for these events (EPOLLIN, EPOLLOUT) of the descriptor; for none: not at all, not even
  /// for its end. False, with errno set, when that fails.
  bool watch(int fd, uint64_t id, uint32_t events);

  /// Waits, at most so many milliseconds (-1: without end). Returns how many of the `most` events there are.
  int wait(epoll_event* events, int most, int ms);

 private:
  const shared::UniqueFd m_epoll;
};

}  // namespace service
