#include "service/clients/Poller.h"

#include <cerrno>

#include "base/descriptor.h"

namespace service {

Poller::Poller() : m_epoll(keepAboveStdio(epoll_create1(EPOLL_CLOEXEC))) {}

bool Poller::watch(int fd, uint64_t id, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  if (events == 0) return epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, fd, &event) == 0 || errno == ENOENT;
  return epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, fd, &event) == 0 ||
         (errno == ENOENT && epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0);
}

int Poller::wait(epoll_event* events, int most, int ms) {
  return epoll_wait(m_epoll.get(), events, most, ms);
}

}  // namespace service
