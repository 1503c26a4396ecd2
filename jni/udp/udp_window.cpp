#include "udp/udp_window.h"

#include <algorithm>

TimeoutEvent* SendWindow::slotFor(uint32_t sequence) {
  TimeoutEvent* freeSlot = nullptr;
  bool outstanding = false;  // a flag: no number is free to stand for an empty window
  uint32_t lowest = 0;
  for (TimeoutEvent& slot : m_slots) {
    if (slot.pkg == nullptr) {
      freeSlot = &slot;
      continue;
    }
    const uint32_t number = slot.pkg->sequence;
    lowest = outstanding ? std::min(lowest, number) : number;
    outstanding = true;
  }
  if (outstanding && sequence > lowest + udp::kSequenceSpan) return nullptr;
  return freeSlot;
}

TimeoutEvent* SendWindow::find(uint32_t sequence) {
  for (TimeoutEvent& slot : m_slots) {
    if (slot.pkg != nullptr && slot.pkg->sequence == sequence) return &slot;
  }
  return nullptr;
}

std::string SendWindow::text() const {
  std::string text;
  for (auto slot = m_slots.rbegin(); slot != m_slots.rend(); ++slot) {
    text += std::to_string(slot->pkg != nullptr ? slot->pkg->sequence : UINT32_MAX) + ";";
  }
  return text;
}
