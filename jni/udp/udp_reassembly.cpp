#include "udp/udp_reassembly.h"

#include <algorithm>
#include <cstring>

namespace {

// Makes room for `needed` bytes, at most the session's total.
bool grow(RecvSession& session, uint32_t needed) {
  if (needed <= session.capacity && session.buffer != nullptr) return true;
  const uint64_t doubled = std::min<uint64_t>(uint64_t{2} * session.capacity, session.total);
  const auto capacity = std::max({static_cast<uint32_t>(doubled), needed, uint32_t{1}});
  auto* bytes = static_cast<uint8_t*>(realloc(session.buffer.get(), capacity));
  if (bytes == nullptr) return false;
  static_cast<void>(session.buffer.release());  // realloc() has freed or kept it
  session.buffer.reset(bytes);
  session.capacity = capacity;
  return true;
}

// Copies the payload behind what has arrived. False, and nothing changed, when there is no memory.
bool append(RecvSession& session, const UdpPkg& piece) {
  const uint32_t end = piece.offset + piece.dataLength;
  if (!grow(session, end)) return false;
  memcpy(session.buffer.get() + session.received, piece.payload, piece.dataLength);
  session.received = end;
  return true;
}

}  // namespace

Reassembly::Outcome Reassembly::add(const UdpPkg& piece) {
  const bool fits = uint64_t{piece.offset} + piece.dataLength <= piece.totalLength;
  const int64_t sessionId = piece.sessionId;
  auto found = m_sessions.find(sessionId);
  if (found != m_sessions.end()) {
    RecvSession& session = found->second;
    const bool next = piece.offset == session.received && piece.totalLength == session.total && fits;
    if (!next || !append(session, piece)) return Outcome::WRONG_OFFSET;
  } else {
    if (piece.offset != 0 || !fits || m_sessions.size() >= udp::kMaxPartialMessages) {
      return Outcome::WRONG_FIRST;
    }
    RecvSession session;
    session.total = piece.totalLength;
    if (!append(session, piece)) return Outcome::WRONG_FIRST;
    found = m_sessions.emplace(sessionId, std::move(session)).first;
  }
  return found->second.received == found->second.total ? Outcome::COMPLETE : Outcome::STORED;
}

const RecvSession* Reassembly::find(int64_t sessionId) const {
  const auto found = m_sessions.find(sessionId);
  return found != m_sessions.end() ? &found->second : nullptr;
}
