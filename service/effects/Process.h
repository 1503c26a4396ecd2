// A process that things are done to: the one at the other end of a local socket.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shared/UniqueFd.h"

namespace service {

/// The process at the other end of a local socket. Held open from the first moment, so that a process number
/// that is given to somebody else later cannot misdirect an effect: its /proc folder and its pidfd stay those
/// of the process that connected. Immutable, except that the process may end.
class Process {
 public:
  /// The process that connected `fd`, as the kernel tells it (SO_PEERCRED). Null when it cannot be seen: it
  /// has ended already, or lives where this service has no view of it.
  static std::shared_ptr<const Process> ofSocket(int fd);

  pid_t pid() const { return m_pid; }
  uid_t uid() const { return m_uid; }
  gid_t gid() const { return m_gid; }

  /// When the thread `tid` started, in clock ticks since boot; nothing if this process has no such thread.
  /// The pair (tid, start) names a thread for good, the number alone does not.
  std::optional<uint64_t> threadStart(pid_t tid) const;

  /// The process's threads, at most `most` of them.
  std::vector<pid_t> threads(size_t most) const;

  /// Sends SIGTERM. 0, or an errno value.
  int terminate() const;

 private:
  Process() = default;
  bool alive() const;

  pid_t m_pid = 0;
  uid_t m_uid = 0;
  gid_t m_gid = 0;
  shared::UniqueFd m_folder;  // /proc/PID
  shared::UniqueFd m_pidfd;   // none where the kernel has no pidfds
};

}  // namespace service
