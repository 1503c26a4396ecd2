#include "udp/udp_timers.h"

#include <cstdio>

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

std::string timeoutText(const TimeoutEvent& record, int64_t now) {
  const std::string packet = record.pkg != nullptr ? packetText(*record.pkg) : "pkg:NULL";
  char text[512];
  snprintf(text, sizeof(text), "T[%x %s to:%d tc:%d %s]", addressBits(&record),
           addressText(record.peer).c_str(), static_cast<int>(record.expiry - now), record.tc,
           packet.c_str());
  return text;
}

int TimerList::size() const {
  int count = 0;
  for (const TimeoutEvent* record = m_records.front(); record != nullptr; record = m_records.after(*record)) {
    ++count;
  }
  return count;
}

void TimerList::insert(TimeoutEvent& record) {
  m_records.insert(record, [&record](const TimeoutEvent& other) { return other.expiry > record.expiry; });
}
