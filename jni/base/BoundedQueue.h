// The bounded producer/consumer queue that every hand-over between threads of the library goes through.
//
// Three queues are built from it: an engine's send queue (5 places on the local socket, 10 over UDP) and the
// callback queue (65535 places). One mutex guards the items, two counting semaphores count free places and
// queued items. Overflow rule: a producer waits for a place, holding no lock, until the consumer takes an
// item or the queue is closed.
//
// Ownership: push() takes the item over (a refused item is freed), tryPop() and pop() hand it out. An Item is
// moved; one made by default is "no item" and tests false.
//
// How long a queue grows is decided by who fills it, so memory that cannot be had refuses an item and ends
// nothing.
#pragma once

#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
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

/// First in, first out, in one block of memory of `reserved` items, which doubles when it is full; a larger
/// one is given back once it is empty. Not thread-safe.
template <class Item>
class Ring {
 public:
  explicit Ring(size_t reserved) : m_reserved(reserved), m_places(reserved), m_block(new Item[reserved]) {}
  bool empty() const { return m_count == 0; }
  size_t size() const { return m_count; }
  /// The i-th oldest, i below size().
  Item& operator[](size_t i) { return m_block[place(i)]; }

  /// False, with the item freed, when there is no memory for a larger block.
  bool push(Item item) {
    if (m_count == m_places && !resize(2 * m_places)) return false;
    m_block[place(m_count++)] = std::move(item);
    return true;
  }
  Item pop() {
    Item item = std::exchange(m_block[m_first], Item());
    m_first = place(1);
    if (--m_count == 0 && m_places > m_reserved) resize(m_reserved);
    return item;
  }

 private:
  size_t place(size_t i) const {
    const size_t sum = m_first + i;
    return sum < m_places ? sum : sum - m_places;
  }
  bool resize(size_t places) {
    std::unique_ptr<Item[]> block(new (std::nothrow) Item[places]);
    if (block == nullptr) return false;
    for (size_t i = 0; i < m_count; ++i) block[i] = std::move((*this)[i]);
    m_block = std::move(block);
    m_places = places;
    m_first = 0;
    return true;
  }

  size_t m_reserved, m_places;
  std::unique_ptr<Item[]> m_block;  // of m_places items
  size_t m_first = 0, m_count = 0;
};

template <class Item>
class BoundedQueue {
 public:
  /// Queues of up to so many places never move their items.
  static constexpr unsigned kReserved = 64;

  /// capacity: the number of items (not bytes) that may wait; at least 1.
  explicit BoundedQueue(unsigned capacity)
      : m_queue(std::min(capacity, kReserved)), m_freeSlots(capacity), m_items(0) {}

  /// Queues an item behind all others. Any thread; blocks while the queue is full.
  /// Returns false, with the item freed, when the queue is closed or is closed during the wait, or when there
  /// is no memory for more than kReserved items.
  bool push(Item item) {
    if (!takePlace()) {
      m_waiting.fetch_add(1);
      if (!takePlace()) m_freeSlots.wait();  // once more: from here on passOn() sees us
      m_waiting.fetch_sub(1);
    }
    passOn();
    return place(std::move(item));
  }

  /// Queues an item if there is a place at this moment; never waits. Any thread. False, with the item freed,
  /// when the queue is full or closed.
  bool tryPush(Item item) {
    if (!takePlace()) return false;
    passOn();
    return place(std::move(item));
  }

  /// The oldest item, left where it is, or null. Consumer thread only, of a queue of at most kReserved
  /// places: it is valid, and that thread's to change, until that thread pops.
  Item* front() {
    if (m_count.load() == 0) return nullptr;
    std::lock_guard<std::mutex> lock(m_lock);
    return &m_queue[0];
  }

  /// Takes the oldest item, or none. Consumer thread only.
  Item tryPop() { return m_count.load() != 0 ? pop() : Item(); }

  /// tryPop(), but a producer that waits learns of the place only by freePlaces(): so the consumer of a full
  /// queue is not interrupted by every producer whose item it has just taken. Who does not wait may have it.
  Item tryPopQuietly() {
    if (m_count.load() == 0) return Item();
    m_items.wait();
    return take(true);
  }

  /// Lets producers that wait have the places that tryPopQuietly() has kept back: the first is woken here,
  /// and each wakes the next. Consumer thread only, and always before it waits for anything.
  void freePlaces() {
    if (takeKeptBack()) m_freeSlots.post();
  }

  /// How many places are kept back.
  unsigned keptBack() const { return m_keptBack.load(); }

  /// Takes the oldest item, waiting for one. Consumer thread only, and only on a queue that is never closed.
  Item pop() {
    m_items.wait();
    return take(false);
  }

  /// Calls change(item) for every queued item, under the queue's lock. Consumer thread only.
  template <class Change>
  void forEach(Change change) {
    std::lock_guard<std::mutex> lock(m_lock);
    for (size_t i = 0; i < m_queue.size(); ++i) change(m_queue[i]);
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
  size_t size() const { return m_count.load(); }

 private:
  bool takePlace() { return m_freeSlots.tryWait() || takeKeptBack(); }

  bool takeKeptBack() {
    unsigned kept = m_keptBack.load();
    while (kept != 0 && !m_keptBack.compare_exchange_weak(kept, kept - 1)) {
    }
    return kept != 0;
  }

  /// A producer that has a place: lets one that waits have another.
  void passOn() {
    if (m_waiting.load() != 0 && takeKeptBack()) m_freeSlots.post();
  }

  /// Queues an item into a place that the caller has taken.
  bool place(Item item) {
    bool queued = false;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      if (!m_closed && m_queue.push(std::move(item))) {
        m_count.fetch_add(1);
        queued = true;
      }
    }
    // Not under the lock, for which who is woken would wait at once. Refused: the place back; when closed,
    // the wake-up on, as close() posts one for all that wait.
    (queued ? m_items : m_freeSlots).post();
    return queued;
  }

  Item take(bool quietly) {
    Item item;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      item = m_queue.pop();
      m_count.fetch_sub(1);
    }
    if (quietly && m_waiting.load() != 0) {
      m_keptBack.fetch_add(1);
    } else {
      m_freeSlots.post();
    }
    return item;
  }

  mutable std::mutex m_lock;
  Ring<Item> m_queue;                   // guarded by m_lock
  std::atomic<size_t> m_count{0};       // of items in m_queue; changed with it, read without the lock
  bool m_closed = false;                // guarded by m_lock
  Semaphore m_freeSlots;                // places left; never taken while m_lock is held
  Semaphore m_items;                    // items queued
  std::atomic<int> m_waiting{0};        // producers that found no place
  std::atomic<unsigned> m_keptBack{0};  // places that are free and not posted
};
