// Building, starting and stopping the transport, and the way of messages into it.
#include "udp/udp.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "base/clock.h"
#include "base/descriptor.h"

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

int UDP::createSocket(const sockaddr_in& local, const char* address, int port) {
  m_interval = m_timing.intervalMs;
  srand(static_cast<unsigned>(time(nullptr)));  // kept, although nothing here draws a random number
  if (m_wake.open() != 0) {
    const int error = errno;
    LOG_ERROR("Create pipe failed errno:%d", error);
    errno = error;
    return -1;
  }
  // Non-blocking, for sends: a full socket loses the datagram, and its timer sends it again.
  int fd = openSocket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  socklen_t length = sizeof(m_local);
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&m_local), &length) != 0) {
    const int error = errno;
    LOG_ERROR("Create socket failed fd:%d %s errno:%d", fd, addressText(local).c_str(), error);
    if (fd >= 0) closeDescriptor(fd);
    m_wake.close();
    errno = error;
    return -1;
  }
  m_fd = fd;
  LOG_WARN("Create socket succ. fd:%d %s:%d pipe:[%d,%d]", m_fd, shownText(address), port, m_wake.readEnd(),
           m_wake.writeEnd());
  return 0;
}

int UDP::startThread(void* (*entry)(void*), void* argument) {
  const int error = pthread_create(&m_thread, nullptr, entry, argument);
  if (error != 0) {
    LOG_ERROR("Start thread failed ret:%d", error);
    errno = error;
    return -1;
  }
  m_threadStarted = true;
  return 0;
}

void UDP::stop() {
  m_requests.close();
  m_stopping.store(true);
  m_wake.wake();
  if (m_loopThread.load() == gettid()) return;  // the loop ends when this event is handled
  const std::lock_guard<std::mutex> stopping(m_stopLock);
  if (m_threadStarted) pthread_join(m_thread, nullptr);
  m_threadStarted = false;
  {
    std::unique_lock<std::mutex> lock(m_callersLock);
    m_callersGone.wait(lock, [this] { return m_callers == 0; });
  }
  m_timers.clear();
  closeDescriptor(m_fd);
  m_wake.close();
}

bool UDP::send(const sockaddr_in& peer, const uint8_t* data, uint32_t length) {
  return queueMessage(makeSendPack(peer, data, length));
}

bool UDP::trySend(const sockaddr_in& peer, const uint8_t* data, uint32_t length) {
  return hand(makeSendPack(peer, data, length), false);
}

bool UDP::send(const sockaddr_in& peer, std::unique_ptr<uint8_t[]> data, uint32_t length) {
  return queueMessage(makeSendPack(peer, std::move(data), length));
}

bool UDP::queueMessage(std::unique_ptr<SendPack> message) {
  return hand(std::move(message), true);
}

bool UDP::hand(std::unique_ptr<SendPack> message, bool wait) {
  {
    std::lock_guard<std::mutex> lock(m_callersLock);
    ++m_callers;
  }
  const bool queued = wait ? m_requests.push(std::move(message)) : m_requests.tryPush(std::move(message));
  if (queued) {
    m_pushes.fetch_add(1);
    m_wake.wakeSleeper();
  }
  // Under the lock: once it is released and the count is 0, stop() returns and this object may be gone.
  std::lock_guard<std::mutex> lock(m_callersLock);
  --m_callers;
  m_callersGone.notify_all();
  return queued;
}

std::unique_ptr<UDP::SendPack> UDP::makeSendPack(const sockaddr_in& peer, std::unique_ptr<uint8_t[]> data,
                                                 uint32_t length) {
  auto message = std::make_unique<SendPack>();
  message->peer = peer;
  message->sessionId = nowUs();
  message->data = std::move(data);
  message->length = length;
  return message;
}

std::unique_ptr<UDP::SendPack> UDP::makeSendPack(const sockaddr_in& peer, const uint8_t* data,
                                                 uint32_t length) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[length]);
  if (length != 0) memcpy(copy.get(), data, length);
  return makeSendPack(peer, std::move(copy), length);
}

const char* UDP::stateName(uint32_t state) {
  switch (static_cast<State>(state)) {
    case SYN_SENT:
      return "SYN_SENT";
    case OPENING:
      return "OPENING";
    case OPEN:
      return "OPEN";
    case FIN_SENT:
      return "FIN_SENT";
  }
  return "ERR_STATE";
}
