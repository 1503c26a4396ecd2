#include "udp/udp_reassembly.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

Reassembly::Outcome Reassembly::add(const UdpPkg& piece, int64_t now) {
  const bool fits = uint64_t{piece.offset} + piece.dataLength <= piece.totalLength;
  if (RecvSession* known = find(piece.sessionId)) {
    const bool next = piece.offset == known->received && piece.totalLength == known->total && fits;
    return next ? append(*known, piece, now) : Outcome::WRONG_OFFSET;
  }
  if (piece.offset != 0 || !fits) return Outcome::WRONG_FIRST;
  if (piece.dataLength == piece.totalLength) return Outcome::COMPLETE;
  if (piece.dataLength == 0) return Outcome::STORED;  // nothing to keep: it begins with its first byte
  return begin(piece, now);
}

Reassembly::Outcome Reassembly::begin(const UdpPkg& piece, int64_t now) {
  if (piece.totalLength > m_memory.budget) return Outcome::TOO_LONG;
  if (m_sessions.size() >= udp::kMaxPartialMessages) return Outcome::TOO_MANY;
  // One message is always admitted, although its record counts, too: it announces no more than the budget.
  if (m_memory.used != 0 && !hasRoom(udp::kPartialMessageCost + piece.dataLength)) return Outcome::NO_ROOM;
  std::unique_ptr<RecvSession> session(new (std::nothrow) RecvSession);
  if (session == nullptr) return Outcome::NO_MEMORY;
  session->id = piece.sessionId;
  session->peerKey = m_peerKey;
  session->total = piece.totalLength;
  m_memory.used += udp::kPartialMessageCost;
  m_sessions.push_back(std::move(session));
  const Outcome outcome = append(*m_sessions.back(), piece, now);
  if (outcome != Outcome::STORED) erase(piece.sessionId);
  return outcome;
}

// Copies the payload behind what has arrived.
Reassembly::Outcome Reassembly::append(RecvSession& session, const UdpPkg& piece, int64_t now) {
  const uint32_t end = piece.offset + piece.dataLength;
  const Outcome outcome = grow(session, end);
  if (outcome != Outcome::STORED) return outcome;
  memcpy(session.buffer.get() + session.received, piece.payload, piece.dataLength);
  session.received = end;
  session.heard = now;
  m_memory.byLastPiece.pushBack(session);
  return session.received == session.total ? Outcome::COMPLETE : Outcome::STORED;
}

// Makes room for `needed` bytes, at most the session's total.
Reassembly::Outcome Reassembly::grow(RecvSession& session, uint32_t needed) {
  if (needed <= session.capacity) return Outcome::STORED;
  const uint64_t doubled = std::min<uint64_t>(uint64_t{2} * session.capacity, session.total);
  const auto capacity = std::max(static_cast<uint32_t>(doubled), needed);
  const bool alone = m_memory.used == udp::kPartialMessageCost + session.capacity;
  if (!alone && !hasRoom(capacity - session.capacity)) return Outcome::NO_ROOM;
  auto* bytes = static_cast<uint8_t*>(realloc(session.buffer.get(), capacity));
  if (bytes == nullptr) return Outcome::NO_MEMORY;
  static_cast<void>(session.buffer.release());  // realloc() has freed or kept it
  session.buffer.reset(bytes);
  m_memory.used += capacity - session.capacity;
  session.capacity = capacity;
  return Outcome::STORED;
}

bool Reassembly::hasRoom(size_t bytes) const {
  return m_memory.used <= m_memory.budget && bytes <= m_memory.budget - m_memory.used;
}

const uint8_t* Reassembly::message(const UdpPkg& piece) const {
  const RecvSession* whole = find(piece.sessionId);
  return whole != nullptr ? whole->buffer.get() : piece.payload;
}

RecvSession* Reassembly::find(int64_t sessionId) const {
  for (const auto& session : m_sessions) {
    if (session->id == sessionId) return session.get();
  }
  return nullptr;
}

void Reassembly::erase(int64_t sessionId) {
  const auto found = std::find_if(m_sessions.begin(), m_sessions.end(),
                                  [&](const auto& session) { return session->id == sessionId; });
  if (found == m_sessions.end()) return;
  m_memory.used -= udp::kPartialMessageCost + (*found)->capacity;
  m_sessions.erase(found);
}

void Reassembly::clear() {
  while (!m_sessions.empty()) erase(m_sessions.back()->id);
}

const char* Reassembly::reason(Outcome refused) {
  switch (refused) {
    case Outcome::TOO_LONG:
      return "it announces more than the budget";
    case Outcome::TOO_MANY:
      return "its peer has too many unfinished messages";
    case Outcome::NO_ROOM:
      return "the budget is used up";
    case Outcome::NO_MEMORY:
      return "the system has no memory";
    case Outcome::STORED:
    case Outcome::COMPLETE:
    case Outcome::WRONG_OFFSET:
    case Outcome::WRONG_FIRST:
      break;
  }
  return "";
}
