// A process that things are done to: the one at the other end of a local socket.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "shared/UniqueFd.h"

namespace service {

/// What a look at a thread has shown. The pair (thread number, start) names a thread for good, the number
/// alone does not.
struct ThreadLook {
  enum class State {
    THERE,
    GONE,     // the process has no such thread, or has ended
    UNCLEAR,  // it could not be looked at: `error`
  };
  State state = State::GONE;
  uint64_t start = 0;  // THERE: when it started, in clock ticks since boot
  int error = 0;       // an errno value

  bool isThere() const { return state == State::THERE; }
  bool isThread(uint64_t startOfThread) const { return isThere() && start == startOfThread; }
};

/// A process, held open from the first moment, so that a process number that is given to somebody else later
/// cannot misdirect an effect: its /proc folder and its pidfd stay those of the process that was meant.
/// Immutable, except that the process may end.
class Process {
 public:
  /// The process that connected `fd`, as the kernel tells it (SO_PEERCRED). Null when it cannot be seen: it
  /// has ended already, or lives where this service has no view of it.
  /// want  set to the errno value when it is a want that passes, see isPassing(); else 0
  static std::shared_ptr<const Process> ofSocket(int fd, int& want);

  /// The process of this number. Whether it is the one that was meant is for thread starts to tell. Null when
  /// there is none.
  static std::shared_ptr<const Process> ofNumber(pid_t pid);

  pid_t pid() const { return m_pid; }
  uid_t uid() const { return m_uid; }
  gid_t gid() const { return m_gid; }
  /// Its supplementary groups when it connected; none where the kernel does not tell.
  const std::vector<gid_t>& groups() const { return m_groups; }

  /// Empty while the process has the rights that it connected with; else why nothing may be done for it: a
  /// connection that a program with other rights has inherited (a set-user-id program, say) still speaks in
  /// the old name.
  std::string rightsProblem() const;

  ThreadLook thread(pid_t tid) const;

  /// The process's threads, at most `most` of them. 0, or an errno value; ESRCH when it has ended.
  int threads(size_t most, std::vector<pid_t>& tids) const;

  /// Sends SIGTERM. 0, or an errno value.
  int terminate() const;

 private:
  Process() = default;
  static std::shared_ptr<Process> open(pid_t pid, shared::UniqueFd pidfd);
  bool alive() const;
  std::string rights() const;

  pid_t m_pid = 0;
  uid_t m_uid = 0;
  gid_t m_gid = 0;
  std::vector<gid_t> m_groups;
  std::string m_rights;       // rights() at the start
  shared::UniqueFd m_folder;  // /proc/PID
  shared::UniqueFd m_pidfd;   // none where the kernel has no pidfds
};

}  // namespace service
