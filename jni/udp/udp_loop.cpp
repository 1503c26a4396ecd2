// The transport thread's loop and its timers.
//
// In the traces, "run" is the milliseconds since the round began (in "startLoop", since it ended its turn of
// the queue), "sq" the messages queued and the number behind it whether one was taken; "diff" is the time in
// select beyond what was asked for, and "run" again.
#include <sys/select.h>

#include <cerrno>

#include "base/descriptor.h"
#include "udp/udp.h"

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

int UDP::loop() {
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
  return result;
}

// One round: the queue, then either the timer that is due or the socket and the pipe.
int UDP::startLoop() {
  const int64_t now = m_timing.now();
  const int taken = pumpSendQueue();
  const int64_t timeout = m_timers.empty() ? -1 : (*m_timers.front())->expiry - now;
  LOG_DEBUG("startLoop ,timeout:%d timer:%d sender:%d checkcnt:[sq:%d %d run:%d] ", static_cast<int>(timeout),
            m_timers.size(), static_cast<int>(m_senders.size()), static_cast<int>(m_requests.size()), taken,
            static_cast<int>(m_timing.now() - now));
  return m_timers.empty() || timeout >= 1 ? eventloop(timeout, now) : handleFrontTimer(now);
}

// Waits for the socket, the pipe or the nearest timer, and handles the first two.
int UDP::eventloop(int64_t timeout, int64_t roundStart) {
  const auto sinceRoundStart = [&] { return static_cast<int>(m_timing.now() - roundStart); };
  const int pipe = m_wake.readEnd();
  m_readable.clear();
  m_readable.add(m_fd);
  m_readable.add(pipe);
  timeval limit{};
  limit.tv_sec = timeout / 1000;
  limit.tv_usec = timeout % 1000 * 1000;
  const int64_t before = m_timing.now();
  const int ready =
      SelectSet::select(m_fd > pipe ? m_fd : pipe, &m_readable, nullptr, m_timers.empty() ? nullptr : &limit);
  const int error = ready < 0 ? errno : 0;
  const auto waited = static_cast<int>(m_timing.now() - before);
  LOG_DEBUG("SelectRet:%d err:%d time:%d realTime:%d diff[%d %d]", ready, error, static_cast<int>(timeout),
            waited, static_cast<int>(waited - timeout), sinceRoundStart());
  if (ready == -1 && error != EINTR) {
    LOG_DEBUG("eventloop: select errno:%d", error);
    return 0;
  }
  if (m_readable.contains(m_fd)) {
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
  const TimerList::Node node = m_timers.front();
  TimeoutEvent& record = **node;
  const auto timeout = static_cast<int>(record.expiry - roundStart);
  const int result = processTimeout(record);
  LOG_DEBUG_IN("processTimeout", __LINE__, "processTimeout: timeout:%d ret:%d run:%d %s", timeout, result,
               static_cast<int>(m_timing.now() - roundStart), timeoutText(record, m_timing.now()).c_str());
  m_timers.erase(node);
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
