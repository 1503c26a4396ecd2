#include "tools/record/Loop.h"

#include <sys/epoll.h>

#include <iterator>
#include <memory>

#include "base/descriptor.h"

namespace record {

Loop::Loop() : m_epoll(keepAboveStdio(epoll_create1(EPOLL_CLOEXEC))) {}

uint64_t Loop::add(int fd, uint32_t events, Handler handler) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = m_last + 1;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) return 0;
  m_watches[++m_last] = std::make_shared<Watch>(Watch{fd, std::move(handler)});
  return m_last;
}

void Loop::change(uint64_t watch, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = watch;
  const auto found = m_watches.find(watch);
  if (found != m_watches.end()) epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, found->second->fd, &event);
}

void Loop::remove(uint64_t watch) {
  const auto found = m_watches.find(watch);
  if (found == m_watches.end()) return;
  epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, found->second->fd, nullptr);
  m_watches.erase(found);
}

void Loop::run(const std::function<int()>& due) {
  epoll_event events[64];
  while (!m_stopped) {
    const int waitMs = due();
    const int count = epoll_wait(m_epoll.get(), events, std::size(events), waitMs);
    for (int i = 0; i < count && !m_stopped; ++i) {
      const auto found = m_watches.find(events[i].data.u64);
      if (found == m_watches.end()) continue;              // removed earlier in this round
      const std::shared_ptr<Watch> watch = found->second;  // it may remove itself
      watch->handler(events[i].events);
    }
  }
}

}  // namespace record
