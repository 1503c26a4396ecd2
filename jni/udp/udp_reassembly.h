// Putting the pieces of messages from one peer together. Transport thread only.
//
// Invariant: of every message in here, bytes 0 to `received` have arrived, each once, and `received` is the
// offset that its next piece must have. What a piece claims (`of`, `dl`, `tl`) is checked before a byte is
// copied.
//
// Memory: all peers of a transport share one budget (ReceiveMemory). A message's buffer grows as its bytes
// arrive, to at most twice of what the peer has sent, so that a forged `tl` costs nothing; a message that
// comes in one piece is never kept at all, and neither is one of which no byte has come. A peer has at most
// 16 messages in the making; a well-formed sender sends one after the other.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "udp/udp_list.h"
#include "udp/udp_packet.h"

/// A message in the making. Linked in the order of the last pieces.
struct RecvSession : Linked<RecvSession> {
  struct Free {
    void operator()(uint8_t* bytes) const { free(bytes); }
  };

  int64_t id = 0;                           // the session id
  uint64_t peerKey = 0;                     // whose message it is
  int64_t heard = 0;                        // when its last piece came, in milliseconds of UdpTiming::now
  uint32_t received = 0;                    // bytes so far
  uint32_t total = 0;                       // bytes of the whole, from the first piece's tl
  uint32_t capacity = 0;                    // bytes at `buffer`
  std::unique_ptr<uint8_t[], Free> buffer;  // from realloc(): large buffers grow without being copied
};
static_assert(sizeof(RecvSession) + 40 <= udp::kPartialMessageCost, "with its block's and its place's own");

/// What the unfinished messages of one transport hold.
struct ReceiveMemory {
  explicit ReceiveMemory(size_t budget) : budget(budget) {}

  const size_t budget;                  // bytes
  size_t used = 0;                      // bytes: buffers, and kPartialMessageCost for each message
  LinkedList<RecvSession> byLastPiece;  // the one that has waited longest in front
};

class Reassembly {
 public:
  enum class Outcome {
    STORED,        // taken; more pieces are to come
    COMPLETE,      // taken, and the message is whole: use message(), then erase()
    WRONG_OFFSET,  // dropped: not the next piece of its message, beyond its end, or of another length
    WRONG_FIRST,   // dropped: no message of this id is in the making, and this piece cannot begin one
    // Refused, with nothing changed, because of what we allow or have:
    TOO_LONG,   // it announces more than the budget
    TOO_MANY,   // 16 messages of this peer are in the making
    NO_ROOM,    // the budget is used up: make room and try again
    NO_MEMORY,  // the system has none
  };
  static bool isRefused(Outcome outcome) { return outcome >= Outcome::TOO_LONG; }
  /// Why it was refused, in words.
  static const char* reason(Outcome refused);

  Reassembly(ReceiveMemory& memory, uint64_t peerKey) : m_memory(memory), m_peerKey(peerKey) {}
  ~Reassembly() { clear(); }
  Reassembly(const Reassembly&) = delete;
  Reassembly& operator=(const Reassembly&) = delete;

  /// Adds one piece that came at `now`. It must be an intact DATA packet.
  Outcome add(const UdpPkg& piece, int64_t now);

  /// After COMPLETE: the whole message. It may lie in the piece itself.
  const uint8_t* message(const UdpPkg& piece) const;

  /// The message in the making with this id, or null.
  RecvSession* find(int64_t sessionId) const;

  /// Drops the message with this id, if it is in the making.
  void erase(int64_t sessionId);
  void clear();

  /// The number of messages in the making.
  int size() const { return static_cast<int>(m_sessions.size()); }

 private:
  Outcome begin(const UdpPkg& piece, int64_t now);
  Outcome append(RecvSession& session, const UdpPkg& piece, int64_t now);
  Outcome grow(RecvSession& session, uint32_t needed);
  bool hasRoom(size_t bytes) const;

  ReceiveMemory& m_memory;
  const uint64_t m_peerKey;
  std::vector<std::unique_ptr<RecvSession>> m_sessions;
};
