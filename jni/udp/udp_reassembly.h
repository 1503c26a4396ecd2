// Putting the pieces of messages from one peer together. Transport thread only.
//
// Invariant: of every message in here, bytes 0 to `received` have arrived, each once, and `received` is the
// offset that its next piece must have. What a piece claims (`of`, `dl`, `tl`) is checked before a byte is
// copied.
//
// Memory: a message's buffer grows as its bytes arrive, to at most twice of what the peer has sent, so that a
// forged `tl` costs nothing. A peer has at most 16 messages in the making; a well-formed sender sends one
// after the other. When memory for a piece cannot be had the piece is dropped like one with a wrong offset.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>

#include "udp/udp_packet.h"

/// A message in the making.
struct RecvSession {
  struct Free {
    void operator()(uint8_t* bytes) const { free(bytes); }
  };

  uint32_t received = 0;                    // bytes so far
  uint32_t total = 0;                       // bytes of the whole, from the first piece's tl
  uint32_t capacity = 0;                    // bytes at `buffer`
  std::unique_ptr<uint8_t[], Free> buffer;  // from realloc(): large buffers grow without being copied
};

class Reassembly {
 public:
  enum class Outcome {
    STORED,        // taken; more pieces are to come
    COMPLETE,      // taken, and the message is whole: use find(), then erase()
    WRONG_OFFSET,  // dropped: not the next piece of its message, beyond its end, or of another length
    WRONG_FIRST,   // dropped: no message of this id is in the making, and this piece cannot begin one
  };

  /// Adds one piece. It must be an intact DATA packet.
  Outcome add(const UdpPkg& piece);

  /// The message in the making with this id, or null.
  const RecvSession* find(int64_t sessionId) const;

  void erase(int64_t sessionId) { m_sessions.erase(sessionId); }

  /// The number of messages in the making.
  int size() const { return static_cast<int>(m_sessions.size()); }

 private:
  std::map<int64_t, RecvSession> m_sessions;  // by session id
};
