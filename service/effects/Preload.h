// 1011: reads files ahead into the page cache.
//
// It takes time, and a file system of the client's own (FUSE) may never answer; so each order has a thread of
// its own, one at a time for each user, which ends with its files. An order that takes too long is answered
// as failed, and its thread left to itself.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "service/core/Outcome.h"
#include "service/effects/Process.h"

namespace service {

/// Bytes that one order may ask for.
constexpr int64_t kMaxPreloadBytes = int64_t{1} << 30;
/// How long one order may take, in milliseconds.
constexpr int64_t kMaxPreloadMs = 10'000;
/// Threads at a time, and orders that wait for one; and the memory that a user's may take, of which one has
/// as much as it needs.
constexpr size_t kMaxPreloadThreads = 8;
constexpr size_t kMaxWaitingPreloads = 1024;
constexpr size_t kMaxWaitingPreloadBytes = size_t{16} * 1024 * 1024;

/// With whose eyes files are looked at, so that a client can neither warm nor detect a file it may not read.
struct Eyes {
  uid_t uid = 65534;  // "nobody", for a requester that is not known
  gid_t gid = 65534;
  std::vector<gid_t> groups;

  static Eyes of(const Process* process);
};

/// Asks the kernel to read the files ahead, in pieces. Takes absolute paths of regular files; anything else
/// (a fifo, a device, a folder) is looked at but never opened. Looks with the given eyes: as root by taking
/// them on for the calling thread, for good; without root only when the service's own see no more.
/// leftOut  names that are not among `files`, because the request had too many
Outcome preloadFiles(const std::vector<std::string>& files, size_t leftOut, const Eyes& eyes);

class Preloads {
 public:
  struct Order {
    uint64_t ticket = 0;  // comes back with the outcome
    uint32_t user = 0;
    std::vector<std::string> files;
    size_t leftOut = 0;
    Eyes eyes;
  };
  struct Result {
    uint64_t ticket;
    Outcome outcome;
  };

  Preloads();
  bool isOpen() const;
  /// Readable when take() has something.
  int fd() const;

  /// Its outcome comes through take().
  void start(Order order, int64_t now);
  /// What is done, or has taken too long.
  std::vector<Result> take(int64_t now);
  /// Whether nothing is being read ahead, or waits to be.
  bool isIdle() const { return m_running.empty() && m_waiting.empty(); }
  /// When the next order will have taken too long, or INT64_MAX.
  int64_t nextExpiry() const;

 private:
  struct Mailbox;  // with the threads, which may outlive the object
  struct Running {
    uint32_t user;
    int64_t until;
    bool answered;  // as failed
  };
  void startWaiting(int64_t now);

  const std::shared_ptr<Mailbox> m_mailbox;
  std::deque<Order> m_waiting;
  std::map<uint64_t, Running> m_running;  // by ticket
};

}  // namespace service
