#include "service/clients/SocketClient.h"

#include <sys/socket.h>

#include <cerrno>

#include "base/descriptor.h"

namespace service {

void SocketClient::receive() {
  uint8_t bytes[64 * 1024];
  const ssize_t count = retryEintr([&] { return recv(fd(), bytes, sizeof(bytes), MSG_DONTWAIT); });
  if (count > 0) m_reader.append(bytes, static_cast<size_t>(count));
  m_hasEnded = count == 0 || (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

void SocketClient::misbehave(Misbehaviour how) {
  switch (how) {
    case Misbehaviour::CLOSE:
      m_isToBeClosed = true;
      break;
    case Misbehaviour::HALF_CLOSE:
      m_isHalfClosed = true;
      break;
    case Misbehaviour::STOP_READING:
      m_isUnread = true;
      break;
  }
}

bool SocketClient::flush() {
  while (hasOutput()) {
    const ssize_t count = retryEintr(
        [&] { return send(fd(), m_replies.data(), m_replies.size(), MSG_DONTWAIT | MSG_NOSIGNAL); });
    if (count < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return m_replies.size() <= kMaxPendingOutput;
      m_replies.sent(m_replies.size());
      return true;
    }
    m_replies.sent(static_cast<size_t>(count));
  }
  if (m_isHalfClosed) shutdown(fd(), SHUT_WR);
  return true;
}

}  // namespace service
