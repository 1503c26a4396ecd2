// The pipe with which other threads wake an engine's loop out of select().
//
// The loop thread has readEnd() in its read set and calls drain() when it is readable. wake() and close()
// exclude each other, so that nobody ever writes into a descriptor that was closed (and perhaps reused), and
// since both ends close together a late wake() cannot raise SIGPIPE either.
//
// Wake-ups for queued items merge: a loop that is busy looks at its queue again by itself. It calls
// goToSleep(), then looks whether something is queued, then sleeps; a producer queues, then calls
// wakeSleeper(), which writes only when the loop has announced a sleep and nobody has ended it yet. All of
// these steps are in one order for all threads, so either the item is seen or the pipe written.
#pragma once

#include <atomic>
#include <mutex>

class WakePipe {
 public:
  WakePipe() = default;
  ~WakePipe() { close(); }
  WakePipe(const WakePipe&) = delete;
  WakePipe& operator=(const WakePipe&) = delete;

  /// Creates the pipe (a pipe that is open is closed first). 0, or -1 with errno set.
  int open();

  /// Closes both ends; a second call does nothing. Only the loop thread, or nobody's loop running.
  void close();

  /// Makes the read end readable: writes 4 bytes, the write end's own number, which mean nothing. Any thread.
  /// Never blocks (a full pipe is awake enough); does nothing once the pipe is closed.
  void wake();

  /// Announces that the loop is about to wait for this pipe. Loop thread only.
  void goToSleep() { m_sleeping.store(true); }

  /// wake(), if the loop sleeps or is about to. Any thread.
  void wakeSleeper() {
    if (m_sleeping.exchange(false)) wake();
  }

  /// Reads 4 bytes and discards them. Returns read()'s result. Loop thread only.
  int drain();

  /// The ends' numbers, 0 when closed. Any thread.
  int readEnd() const;
  int writeEnd() const;

 private:
  std::atomic<bool> m_sleeping{false};
  mutable std::mutex m_lock;
  int m_readEnd = 0;   // guarded by m_lock; 0 = none
  int m_writeEnd = 0;  // guarded by m_lock; 0 = none
};
