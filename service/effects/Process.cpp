#include "service/effects/Process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>

#include "base/descriptor.h"
#include "shared/Text.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77  // Linux 6.5; the C library's headers are older
#endif

namespace service {
namespace {

/// The pidfd of the process that connected `fd`.
shared::UniqueFd peerPidfd(int fd, pid_t pid) {
  int pidfd = -1;
  socklen_t length = sizeof(pidfd);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) == 0) return shared::UniqueFd(pidfd);
  // Older kernels: by number. Right only while the process lives, which the caller checks afterwards.
  return shared::UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

std::string readSmallFile(int folder, const char* path) {
  const shared::UniqueFd file(openat(folder, path, O_RDONLY | O_CLOEXEC));
  char text[1024];
  const ssize_t count = file ? retryEintr([&] { return read(file.get(), text, sizeof(text)); }) : -1;
  return count > 0 ? std::string(text, static_cast<size_t>(count)) : std::string();
}

}  // namespace

std::shared_ptr<const Process> Process::ofSocket(int fd) {
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 || credentials.pid <= 0) {
    return nullptr;
  }
  std::shared_ptr<Process> process(new Process);
  process->m_pid = credentials.pid;
  process->m_uid = credentials.uid;
  process->m_gid = credentials.gid;
  process->m_pidfd = peerPidfd(fd, credentials.pid);
  const std::string folder = "/proc/" + std::to_string(credentials.pid);
  process->m_folder = shared::UniqueFd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Alive after the folder was opened: then the folder is that process's, not a successor's.
  return process->m_folder && process->alive() ? process : nullptr;
}

bool Process::alive() const {
  if (!m_pidfd) return !readSmallFile(m_folder.get(), "stat").empty();
  pollfd ended{m_pidfd.get(), POLLIN, 0};
  return poll(&ended, 1, 0) == 0;
}

std::optional<uint64_t> Process::threadStart(pid_t tid) const {
  if (tid <= 0) return std::nullopt;
  const std::string text = readSmallFile(m_folder.get(), ("task/" + std::to_string(tid) + "/stat").c_str());
  // The thread's name, field 2, may hold anything; behind its last parenthesis the fields are plain.
  size_t at = text.rfind(')');
  if (at == std::string::npos) return std::nullopt;
  constexpr int kStartField = 22;
  for (int field = 2; field < kStartField && at != std::string::npos; ++field) at = text.find(' ', at + 1);
  if (at == std::string::npos) return std::nullopt;
  int64_t start = 0;
  const std::string number = text.substr(at + 1, text.find(' ', at + 1) - at - 1);
  if (!shared::parseNumber(number, 0, INT64_MAX, start)) return std::nullopt;
  return static_cast<uint64_t>(start);
}

std::vector<pid_t> Process::threads(size_t most) const {
  std::vector<pid_t> tids;
  const int fd = openat(m_folder.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const folder = fd >= 0 ? fdopendir(fd) : nullptr;
  if (folder == nullptr) {
    if (fd >= 0) close(fd);
    return tids;
  }
  while (const dirent* entry = readdir(folder)) {  // NOLINT(concurrency-mt-unsafe): the stream is ours alone
    int64_t tid = 0;
    if (tids.size() < most && shared::parseNumber(entry->d_name, 1, INT32_MAX, tid)) {
      tids.push_back(static_cast<pid_t>(tid));
    }
  }
  closedir(folder);
  return tids;
}

int Process::terminate() const {
  if (m_pidfd) return syscall(SYS_pidfd_send_signal, m_pidfd.get(), SIGTERM, nullptr, 0) == 0 ? 0 : errno;
  if (!alive()) return ESRCH;
  return kill(m_pid, SIGTERM) == 0 ? 0 : errno;
}

}  // namespace service
