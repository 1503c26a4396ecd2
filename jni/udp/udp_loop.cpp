// The transport thread's loop and its timers.
//
// In the traces, "run" is the milliseconds since the round began (in "startLoop", since it ended its turn of
// the queue), "sq" the messages queued and the number behind it whether one was taken; "diff" is the time in
// select beyond what was asked for, and "run" again.
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/descriptor.h"
#include "udp/udp.h"

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

namespace {
constexpr unsigned kTriedUnasked = 64;  // datagrams that are read without asking select for each
}

int UDP::loop() {
  m_loopThread.store(gettid());
  int result = 0;
  while (result == 0 && (m_fd > 0 || !m_timers.empty())) {
    if (!m_stopping.load()) {
      result = startLoop();
    } else {
      m_timers.clear();
      closeDescriptor(m_fd);
    }
  }
  LOG_DEBUG("end loop , fd:%d timer:%d", m_fd, m_timers.size());
  m_requests.close();
  m_loopThread.store(0);
  return result;
}

// One round: the queue, then either the timer that is due or the socket and the pipe.
int UDP::startLoop() {
  const int64_t now = m_timing.now();
  dropExpiredMessages(now);
  const unsigned pushes = m_pushes.load();
  const int taken = pumpSendQueue();
  const int64_t timeout = m_timers.empty() ? -1 : m_timers.front().expiry - now;
  LOG_DEBUG("startLoop ,timeout:%d timer:%d sender:%d checkcnt:[sq:%d %d run:%d] ", static_cast<int>(timeout),
            m_timers.size(), static_cast<int>(m_senders.size()), static_cast<int>(m_requests.size()), taken,
            static_cast<int>(m_timing.now() - now));
  if (!m_timers.empty() && timeout < 1) return handleFrontTimer(now);
  if (m_untilSelect != 0 && !g_debug.load(std::memory_order_relaxed)) {
    // What select would say is known more cheaply by trying; it is asked once nothing is there, and now and
    // then: callers that wait for a place are woken before it, and datagrams may come without end. The traces
    // show every round in full.
    --m_untilSelect;
    if (receiveOne(false)) return 0;
    m_untilSelect = 0;
  }
  // What was taken may have been empty and so have started nothing that would wake us for the next message.
  bool again = taken != 0 && m_requests.front() != nullptr;
  if (!again) {
    m_wake.goToSleep();
    again = m_pushes.load() != pushes;  // queued since the pump looked, and nobody may have woken us
  }
  return eventloop(timeout, now, again ? 0 : waitLimit(timeout, now));
}

// The longest wait of a round in milliseconds, -1 without limit: until the nearest timer falls due, or until
// the oldest unfinished message is to be dropped.
int64_t UDP::waitLimit(int64_t timeout, int64_t now) const {
  const RecvSession* oldest = m_memory.byLastPiece.front();
  if (oldest == nullptr) return timeout;
  const int64_t expiry = std::max<int64_t>(oldest->heard + udp::kPartialMessageMs - now, 0);
  return timeout < 0 ? expiry : std::min(timeout, expiry);
}

// Waits for the socket and the pipe, no longer than `wait` (-1 is for ever), and handles them. `timeout` is
// what the traces tell: the time until the nearest timer.
int UDP::eventloop(int64_t timeout, int64_t roundStart, int64_t wait) {
  const auto sinceRoundStart = [&] { return static_cast<int>(m_timing.now() - roundStart); };
  const bool traced = g_debug.load(std::memory_order_relaxed);  // only then the time is taken
  const int pipe = m_wake.readEnd();
  m_readable.clear();
  m_readable.add(m_fd);
  m_readable.add(pipe);
  timeval limit{};
  limit.tv_sec = wait / 1000;
  limit.tv_usec = wait % 1000 * 1000;
  m_requests.freePlaces();
  const int64_t before = traced ? m_timing.now() : 0;
  const int ready =
      SelectSet::select(m_fd > pipe ? m_fd : pipe, &m_readable, nullptr, wait < 0 ? nullptr : &limit);
  const int error = ready < 0 ? errno : 0;
  if (traced) {
    const auto waited = static_cast<int>(m_timing.now() - before);
    LOG_DEBUG("SelectRet:%d err:%d time:%d realTime:%d diff[%d %d]", ready, error, static_cast<int>(timeout),
              waited, static_cast<int>(waited - timeout), sinceRoundStart());
  }
  if (ready == -1 && error != EINTR) {
    LOG_DEBUG("eventloop: select errno:%d", error);
    return 0;
  }
  m_untilSelect = 0;
  if (m_readable.contains(m_fd)) {
    m_untilSelect = kTriedUnasked;
    const int result = processReceive();
    LOG_DEBUG("eventloop: processReceive ret:%d  run:%d", result, sinceRoundStart());
    if (result < 0) return -1;
  }
  if (m_readable.contains(pipe)) {
    const int result = m_wake.drain();
    LOG_DEBUG("read pipe ret:%d run:%d ", result, sinceRoundStart());
  }
  return 0;
}

int UDP::handleFrontTimer(int64_t roundStart) {
  TimeoutEvent& record = m_timers.front();
  record.unlink();
  const auto timeout = static_cast<int>(record.expiry - roundStart);
  const int result = processTimeout(record);
  LOG_DEBUG_IN("processTimeout", __LINE__, "processTimeout: timeout:%d ret:%d run:%d %s", timeout, result,
               static_cast<int>(m_timing.now() - roundStart), timeoutText(record, m_timing.now()).c_str());
  return result;
}

int UDP::processTimeout(TimeoutEvent& record) {
  Sender* sender = findSender(record.peer);
  if (sender == nullptr) {
    LOG_ERROR("Invalid socket. Not in the list.strAddr:%s ", addressText(record.peer).c_str());
    return -1;
  }
  if (!isArmedRightly(record, *sender)) return -1;
  const bool givenUp = record.tc >= udp::kMaxRetransmissions;
  LOG_WARN("TIMEOUT: %s  %s", timeoutText(record, m_timing.now()).c_str(), givenUp ? "!MAXRETRANS!" : "");
  if (givenUp) {
    recvEvent(UDP_EVENT_TIMEOUT, record.peer, record.pkg->sessionId, nullptr, 0);
  } else {
    ++record.tc;
    sendPackage(&record.peer, record.pkg->type, record.pkg->sequence, record.pkg.get());
  }
  return 0;
}

// Whether a record is where its packet's type says that it must be.
bool UDP::isArmedRightly(const TimeoutEvent& record, Sender& sender) {
  const int64_t now = m_timing.now();
  // A record without a packet fails like DATA that is in no slot.
  switch (record.pkg != nullptr ? packetType(record.pkg->type) : PACKET_DATA) {
    case PACKET_SYN:
      if (&record == &sender.synTimeoutEvent) return true;
      LOG_ERROR_IN("processTimeout", __LINE__, "timeoutEvent:%s != &ss->synTimeoutEvent:%s",
                   timeoutText(record, now).c_str(), timeoutText(sender.synTimeoutEvent, now).c_str());
      return false;
    case PACKET_FIN:
      if (&record == &sender.finTimeoutEvent) return true;
      LOG_ERROR_IN("processTimeout", __LINE__, "timeoutEvent:%s != &ss->finTimeoutEvent:%s",
                   timeoutText(record, now).c_str(), timeoutText(sender.finTimeoutEvent, now).c_str());
      return false;
    case PACKET_DATA:
      if (record.pkg != nullptr && sender.win.find(record.pkg->sequence) == &record) return true;
      LOG_ERROR_IN("processTimeout", __LINE__, "TIME_Win_not_found %s %s win:%s",
                   timeoutText(record, now).c_str(), senderText(sender).c_str(), sender.win.text().c_str());
      return false;
    case PACKET_ACK:
    case PACKET_OTHER:
      break;
  }
  return true;
}
