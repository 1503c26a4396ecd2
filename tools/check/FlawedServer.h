// What the checker's own flawed services have in common. They are small, and right but for one flaw: what the
// cases are to find (see SelfTest.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace check {

/// What a service does wrong; SelfTest.cpp has the words for each.
enum class Flaw {
  NONE,
  // Over the local socket
  ANSWERS_NOTHING,
  ANSWERS_TWICE,
  CUTS_TIME_STAMPS,
  WANTS_A_SEND_TIME,
  SWAPS_ANSWERS,
  ANSWERS_THE_LAST_CLIENT,
  LOSES_SPLIT,
  LOSES_COALESCED,
  WAITS_FOR_A_QUIET_MOMENT,
  LOSES_ONE_OF_A_HUNDRED,
  EXPECTS_NO_BODY,
  DEAF_TO_LONG_BODIES,
  DIES_OF_LENGTHS,
  DIES_OF_MAGIC,
  DIES_OF_VERSIONS,
  DEAF_AFTER_UNKNOWN,
  TAKES_ANY_BODY,
  DIES_OF_NEGATIVE_LEVELS,
  DIES_OF_CUT_REQUESTS,
  FORGETS_ON_HALF_CLOSE,
  DIES_OF_VANISHED_CLIENTS,
  KEEPS_DESCRIPTORS,
  SERVES_EIGHT,
  SERVES_ONE_AFTER_THE_OTHER,
  WAITS_FOR_READERS,
  PUSHES_TO_ALL,
  PUSHES_NOISE,
  PUSHES_TWO_BODIES,
  DIES_OF_REGISTERED_AND_GONE,
  NEVER_CANCELS,
  NEVER_EXPIRES,
  NEVER_UNDOES,
  BINDS_ANYBODY,
  PRETENDS_TO_TERMINATE,
  DROPS_THE_OLDEST,
  DIES_OF_HALF_BODIES,
  // Over UDP
  WRONG_CHECKSUMS,
  ACKS_WITHOUT_OFFSET,
  ACKS_UNOPENED,
  ACKS_ONCE,
  ACKS_AHEAD,
  SENDS_ONCE,
  KNOWS_NO_WINDOW,
  OPENS_ONCE,
  NEVER_CLOSES,
  BELIEVES_CHECKSUMS,
  MIXES_PEERS,
  DIES_OF_BAD_MESSAGES,
  DIES_OF_TOTAL_LENGTHS,
  WAITS_FOR_ACKS,
};

/// Milliseconds that a turn of a serving thread waits for something to do.
constexpr int kTurnMs = 5;

/// A flaw, and a thread that serves until the object ends.
class FlawedServer {
 public:
  virtual ~FlawedServer() = default;

 protected:
  explicit FlawedServer(Flaw flaw) : m_flaw(flaw) {}
  /// Calls serve() again and again on a thread of its own.
  void startThread();
  /// To be called by the destructors of what has a serve().
  void endThread();
  /// Does what there is to do, or waits for it for a few milliseconds.
  virtual void serve() = 0;

  bool is(Flaw flaw) const { return m_flaw == flaw; }
  /// From now on nothing is served, when this is the flaw. False.
  bool die(Flaw flaw) {
    m_dead = m_dead || is(flaw);
    return false;
  }

  bool m_dead = false;  // the thread's

 private:
  const Flaw m_flaw;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

/// A reply as bytes.
std::string replyPacket(uint16_t funcid, uint32_t status, uint64_t timestamp, const std::string& body = "");

}  // namespace check
