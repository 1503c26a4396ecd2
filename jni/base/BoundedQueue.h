// The bounded producer/consumer queue that every hand-over between threads of the library goes through.
//
// Three queues are built from it: an engine's send queue (5 places on the local socket, 10 over UDP) and the
// callback queue (65535 places). One mutex guards the items, two counting semaphores count free places and
// queued items. Overflow rule: a producer waits for a place, holding no lock, until the consumer takes an
// item or the queue is closed.
//
// Ownership: push() takes the item over (a refused item is freed), tryPop() and pop() hand it out.
#pragma once

#include <semaphore.h>

#include <cerrno>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

/// A counting semaphore of this process (POSIX, unnamed).
class Semaphore {
 public:
  explicit Semaphore(unsigned count) { sem_init(&m_semaphore, 0, count); }
  ~Semaphore() { sem_destroy(&m_semaphore); }
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void post() { sem_post(&m_semaphore); }
  void wait() {
    while (sem_wait(&m_semaphore) != 0 && errno == EINTR) {
    }
  }
  bool tryWait() {
    int result = 0;
    while ((result = sem_trywait(&m_semaphore)) != 0 && errno == EINTR) {
    }
    return result == 0;
  }

 private:
  sem_t m_semaphore;
};

template <class Item>
class BoundedQueue {
 public:
  /// capacity: the number of items (not bytes) that may wait; at least 1.
  explicit BoundedQueue(unsigned capacity) : m_freeSlots(capacity), m_items(0) {}

  /// Queues an item behind all others. Any thread; blocks while the queue is full.
  /// Returns false, with the item freed, when the queue is closed or is closed during the wait.
  bool push(std::unique_ptr<Item> item) {
    m_freeSlots.wait();
    return place(std::move(item));
  }

  /// Queues an item if there is a place at this moment; never waits. Any thread. False, with the item freed,
  /// when the queue is full or closed.
  bool tryPush(std::unique_ptr<Item> item) { return m_freeSlots.tryWait() && place(std::move(item)); }

  /// The oldest item, left where it is, or null. Consumer thread only: it is valid until that thread pops.
  Item* front() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_queue.empty() ? nullptr : m_queue.front().get();
  }

  /// Takes the oldest item, or null when there is none. Consumer thread only.
  std::unique_ptr<Item> tryPop() { return m_items.tryWait() ? take() : nullptr; }

  /// Takes the oldest item, waiting for one. Consumer thread only, and only on a queue that is never closed.
  std::unique_ptr<Item> pop() {
    m_items.wait();
    return take();
  }

  /// Refuses all further items and wakes every producer that waits for a place. What is queued stays for the
  /// consumer. Any thread; there is no way back.
  void close() {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      if (m_closed) return;
      m_closed = true;
    }
    m_freeSlots.post();
  }

  /// The number of queued items at this moment. Any thread.
  size_t size() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_queue.size();
  }

 private:
  /// Queues an item into a place that the caller has taken.
  bool place(std::unique_ptr<Item> item) {
    {
      std::lock_guard<std::mutex> lock(m_lock);
      if (!m_closed) {
        m_queue.push_back(std::move(item));
        m_items.post();  // under the lock, so that an item that front() shows is one that tryPop() gets
        return true;
      }
    }
    m_freeSlots.post();  // pass the wake-up on: close() posts one, for all that wait
    return false;
  }

  std::unique_ptr<Item> take() {
    std::unique_ptr<Item> item;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      item = std::move(m_queue.front());
      m_queue.pop_front();
    }
    m_freeSlots.post();
    return item;
  }

  mutable std::mutex m_lock;
  std::deque<std::unique_ptr<Item>> m_queue;  // guarded by m_lock
  bool m_closed = false;                      // guarded by m_lock
  Semaphore m_freeSlots;                      // places left; never taken while m_lock is held
  Semaphore m_items;                          // items queued
};
