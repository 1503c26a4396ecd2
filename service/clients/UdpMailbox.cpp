#include "service/clients/UdpMailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

#include "base/descriptor.h"

namespace service {

UdpMailbox::UdpMailbox() : m_event(keepAboveStdio(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

void UdpMailbox::ring() const {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(m_event.get(), &one, sizeof(one));
}

void UdpMailbox::put(const sockaddr_in& from, const uint8_t* data, uint32_t length) {
  {
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m_contents.messages.size() >= kMaxMailboxMessages || length > kMaxMailboxBytes - m_bytes) {
      ++m_contents.dropped;
    } else {
      m_contents.messages.push_back({from, std::vector<uint8_t>(data, data + length)});
      m_bytes += length;
    }
  }
  ring();
}

void UdpMailbox::put(const Delivery& delivery) {
  {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_contents.deliveries.push_back(delivery);  // bounded by the packets that the repliers have sent
  }
  ring();
}

UdpMailbox::Contents UdpMailbox::take(bool messagesToo) {
  uint64_t rings = 0;
  [[maybe_unused]] const ssize_t got = read(m_event.get(), &rings, sizeof(rings));
  const std::lock_guard<std::mutex> lock(m_lock);
  Contents taken = std::exchange(m_contents, {});
  if (messagesToo) {
    m_bytes = 0;
  } else {
    m_contents.messages.swap(taken.messages);
    if (!m_contents.messages.empty()) ring();
  }
  return taken;
}

}  // namespace service
