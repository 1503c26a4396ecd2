#include "UdpTransport.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "descriptor.h"

namespace service {
namespace {

void* runTransport(void* transport) {
  static_cast<UDP*>(transport)->loop();
  return nullptr;
}

bool open(UDP& transport, const sockaddr_in& local) {
  return transport.createSocket(local, addressText(local).c_str(), ntohs(local.sin_port)) == 0 &&
         transport.startThread(runTransport, &transport) == 0;
}

}  // namespace

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

UdpMailbox::Contents UdpMailbox::take() {
  uint64_t rings = 0;
  [[maybe_unused]] const ssize_t got = read(m_event.get(), &rings, sizeof(rings));
  const std::lock_guard<std::mutex> lock(m_lock);
  m_bytes = 0;
  return std::exchange(m_contents, {});
}

int UdpInbox::recvEvent(int event, const sockaddr_in& peer, int64_t /*sessionId*/, const uint8_t* data,
                        uint32_t len) {
  if (event == UDP_EVENT_DATA) m_mailbox.put(peer, data, len);
  return 0;
}

UdpInbox::~UdpInbox() {
  stop();
}

bool UdpInbox::listen(const sockaddr_in& address) {
  errno = 0;
  return open(*this, address);
}

int UdpReplier::recvEvent(int event, const sockaddr_in& /*peer*/, int64_t /*sessionId*/,
                          const uint8_t* /*data*/, uint32_t /*len*/) {
  if (event == UDP_EVENT_SESSION_FINISH) m_mailbox.put({m_serial, false});
  if (event == UDP_EVENT_TIMEOUT) m_mailbox.put({m_serial, true});
  return 0;  // nobody has business to send data here
}

UdpReplier::~UdpReplier() {
  stop();
}

bool UdpReplier::open(const sockaddr_in& localAddress) {
  sockaddr_in local = localAddress;
  local.sin_port = 0;
  return service::open(*this, local);
}

}  // namespace service
