#include "service/effects/Process.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <sstream>

#include "base/descriptor.h"
#include "service/core/Outcome.h"
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

std::vector<gid_t> peerGroups(int fd) {
  socklen_t length = 0;
  getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, nullptr, &length);  // says how long it is
  std::vector<gid_t> groups(length / sizeof(gid_t));
  if (length == 0 || getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) return {};
  return groups;
}

/// The start of a file of /proc. 0, or an errno value.
int readSmallFile(int folder, const std::string& path, std::string& text) {
  const shared::UniqueFd file(openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return errno;
  char bytes[4096];
  const ssize_t count = retryEintr([&] { return read(file.get(), bytes, sizeof(bytes)); });
  if (count < 0) return errno;
  text.assign(bytes, static_cast<size_t>(count));
  return 0;
}

bool meansGone(int error) {
  return error == ENOENT || error == ESRCH || error == ENOTDIR;
}

/// Field 22 of a stat file. The thread's name, field 2, may hold anything; behind its last parenthesis the
/// fields are plain.
bool readStart(const std::string& text, uint64_t& start) {
  size_t at = text.rfind(')');
  constexpr int kStartField = 22;
  for (int field = 2; field < kStartField && at != std::string::npos; ++field) at = text.find(' ', at + 1);
  if (at == std::string::npos) return false;
  int64_t number = 0;
  const std::string field = text.substr(at + 1, text.find(' ', at + 1) - at - 1);
  if (!shared::parseNumber(field, 0, INT64_MAX, number)) return false;
  start = static_cast<uint64_t>(number);
  return true;
}

}  // namespace

std::shared_ptr<Process> Process::open(pid_t pid, shared::UniqueFd pidfd) {
  std::shared_ptr<Process> process(new Process);
  process->m_pid = pid;
  process->m_pidfd = std::move(pidfd);
  const std::string folder = fmt::format("/proc/{}", pid);
  process->m_folder = shared::UniqueFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Alive after the folder was opened: then the folder is that process's, not a successor's.
  return process->m_folder && process->alive() ? process : nullptr;
}

std::shared_ptr<const Process> Process::ofSocket(int fd, int& want) {
  want = 0;
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 || credentials.pid <= 0) {
    return nullptr;
  }
  errno = 0;
  shared::UniqueFd pidfd = peerPidfd(fd, credentials.pid);
  std::shared_ptr<Process> process;
  if (pidfd || !isPassing(errno)) {
    errno = 0;
    process = open(credentials.pid, std::move(pidfd));
  }
  if (process != nullptr) process->m_rights = process->rights();
  if (process == nullptr || process->m_rights.empty()) {
    if (isPassing(errno)) want = errno;
    return nullptr;
  }
  process->m_uid = credentials.uid;
  process->m_gid = credentials.gid;
  process->m_groups = peerGroups(fd);
  return process;
}

std::shared_ptr<const Process> Process::ofNumber(pid_t pid) {
  return open(pid, shared::UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))));
}

bool Process::alive() const {
  std::string text;
  if (!m_pidfd) return readSmallFile(m_folder.get(), "stat", text) == 0 && !text.empty();
  pollfd ended{m_pidfd.get(), POLLIN, 0};
  return poll(&ended, 1, 0) == 0;
}

/// The lines of its status file that say what it may do; empty when they cannot be had.
std::string Process::rights() const {
  std::string text;
  if (readSmallFile(m_folder.get(), "status", text) != 0) return "";
  std::istringstream lines(text);
  std::string found;
  for (std::string line; std::getline(lines, line);) {
    for (const char* const name : {"Uid:", "Gid:", "CapPrm:"}) {
      if (line.rfind(name, 0) == 0) found += line + "\n";
    }
  }
  return found;
}

std::string Process::rightsProblem() const {
  const std::string now = rights();
  if (now.empty()) return "what the process may do cannot be seen any more";
  // By user id, for what was executed between connecting and the first look.
  unsigned real = 0, effective = 0;
  std::istringstream words(now);
  std::string label;
  if (!(words >> label >> real >> effective) || effective != m_uid || now != m_rights) {
    return "the process has other rights now than when it connected: it has to connect anew";
  }
  return "";
}

ThreadLook Process::thread(pid_t tid) const {
  if (tid <= 0) return {};
  std::string text;
  const int error = readSmallFile(m_folder.get(), fmt::format("task/{}/stat", tid), text);
  ThreadLook look;
  if (error != 0 && !meansGone(error)) {
    look.state = ThreadLook::State::UNCLEAR;
    look.error = error;
  } else if (error == 0 && readStart(text, look.start)) {
    look.state = ThreadLook::State::THERE;
  }
  return look;
}

int Process::threads(size_t most, std::vector<pid_t>& tids) const {
  const int fd = openat(m_folder.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return meansGone(errno) ? ESRCH : errno;
  DIR* const folder = fdopendir(fd);
  if (folder == nullptr) {
    const int error = errno;
    close(fd);
    return error;
  }
  while (const dirent* entry = readdir(folder)) {  // NOLINT(concurrency-mt-unsafe): the stream is ours alone
    int64_t tid = 0;
    if (tids.size() < most && shared::parseNumber(entry->d_name, 1, INT32_MAX, tid)) {
      tids.push_back(static_cast<pid_t>(tid));
    }
  }
  closedir(folder);
  return tids.empty() ? ESRCH : 0;
}

int Process::terminate() const {
  if (m_pidfd) return syscall(SYS_pidfd_send_signal, m_pidfd.get(), SIGTERM, nullptr, 0) == 0 ? 0 : errno;
  if (!alive()) return ESRCH;
  return kill(m_pid, SIGTERM) == 0 ? 0 : errno;
}

}  // namespace service
