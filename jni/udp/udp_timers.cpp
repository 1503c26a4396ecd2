#include "udp/udp_timers.h"

#include <algorithm>
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

void TimerList::insert(TimeoutEvent* record) {
  const auto later = std::find_if(m_records.begin(), m_records.end(), [record](const TimeoutEvent* other) {
    return other->expiry > record->expiry;
  });
  m_records.insert(later, record);
}

bool TimerList::remove(const TimeoutEvent* record) {
  const auto node = std::find(m_records.begin(), m_records.end(), record);
  if (node == m_records.end()) return false;
  m_records.erase(node);
  return true;
}
