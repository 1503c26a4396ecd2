#include "service/effects/Preload.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/descriptor.h"
#include "shared/Text.h"
#include "shared/UniqueFd.h"

namespace service {
namespace {

/// More at once is cut short by the kernel, to what a disk reads at once: this much, or more.
constexpr int64_t kPiece = int64_t{128} * 1024;

const char kNoAnswer[] = "files cannot be looked at in time: their disk does not answer";

size_t bytesOf(const Preloads::Order& order) {
  size_t bytes = 0;
  for (const std::string& file : order.files) bytes += sizeof(std::string) + file.size();
  return bytes;
}

std::vector<gid_t> sorted(std::vector<gid_t> groups, gid_t more) {
  groups.push_back(more);
  std::sort(groups.begin(), groups.end());
  groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
  return groups;
}

/// Whether this process, without its eyes changed, sees no more files than `eyes` do.
bool seesNoMoreThan(const Eyes& eyes) {
  if (geteuid() != eyes.uid) return false;
  std::vector<gid_t> own(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
  if (getgroups(static_cast<int>(own.size()), own.data()) < 0) return false;
  own = sorted(std::move(own), getegid());
  const std::vector<gid_t> theirs = sorted(eyes.groups, eyes.gid);
  return std::includes(theirs.begin(), theirs.end(), own.begin(), own.end());
}

/// File access with the rights of somebody else from now on, for this thread alone: the C library's own calls
/// would change the whole process. Only root can.
bool takeOn(const Eyes& eyes) {
  if (syscall(SYS_setgroups, eyes.groups.size(), eyes.groups.data()) != 0) return false;
  // The group first: without root's user id it could not be changed any more.
  setfsgid(eyes.gid);
  setfsuid(eyes.uid);
  return static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == eyes.uid;
}

/// left  bytes that may still be asked for; counted down
Outcome preloadFile(const std::string& path, int64_t& left) {
  const std::string shown = fmt::format("\"{}\"", shared::printable(path));
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos) {
    return {Status::BAD_ARGUMENT, shown + " is no absolute path"};
  }
  // O_PATH only finds the file: opening a fifo would wait, opening a device may do something.
  const shared::UniqueFd found(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status {};
  if (!found || fstat(found.get(), &status) != 0) return failure(shown, errno);
  if (!S_ISREG(status.st_mode)) return {Status::BAD_ARGUMENT, shown + " is no regular file"};
  const std::string same = fmt::format("/proc/self/fd/{}", found.get());
  const shared::UniqueFd file(open(same.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return failure(shown, errno);
  const int64_t size = std::min<int64_t>(status.st_size, left);
  for (int64_t offset = 0; offset < size; offset += kPiece) {
    const int error = posix_fadvise(file.get(), offset, std::min(kPiece, size - offset), POSIX_FADV_WILLNEED);
    if (error != 0) return failure(shown, error);
  }
  left -= size;
  const std::string text = fmt::format("reads ahead {}, {} bytes", shown, size);
  if (size == status.st_size) return {Status::DONE, text};
  return {Status::PARTLY,
          fmt::format("{} of {}: a request may ask for {} in all", text, status.st_size, kMaxPreloadBytes)};
}

}  // namespace

Eyes Eyes::of(const Process* process) {
  return process != nullptr ? Eyes{process->uid(), process->gid(), process->groups()} : Eyes();
}

Outcome preloadFiles(const std::vector<std::string>& files, size_t leftOut, const Eyes& eyes) {
  if (geteuid() == 0 ? !takeOn(eyes) : !seesNoMoreThan(eyes)) {
    return {Status::NOT_PERMITTED, "the service cannot look at files with the rights of who asks"};
  }
  OutcomeSum outcome;
  int64_t left = kMaxPreloadBytes;
  for (const std::string& file : files) outcome.add(preloadFile(file, left));
  if (leftOut > 0) {
    outcome.add(
        {Status::BAD_ARGUMENT, fmt::format("only the first {} of the files are looked at", files.size())});
  }
  return outcome.sum();
}

struct Preloads::Mailbox {
  const shared::UniqueFd event{keepAboveStdio(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))};
  std::mutex lock;
  std::vector<Result> results;  // guarded by lock

  void put(Result result) {
    const std::lock_guard<std::mutex> guard(lock);
    results.push_back(std::move(result));
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(event.get(), &one, sizeof(one));
  }
  std::vector<Result> take() {
    const std::lock_guard<std::mutex> guard(lock);
    if (results.empty()) return {};
    uint64_t rings = 0;
    [[maybe_unused]] const ssize_t got = read(event.get(), &rings, sizeof(rings));
    return std::exchange(results, {});
  }
};

Preloads::Preloads() : m_mailbox(std::make_shared<Mailbox>()) {}

bool Preloads::isOpen() const {
  return static_cast<bool>(m_mailbox->event);
}

int Preloads::fd() const {
  return m_mailbox->event.get();
}

void Preloads::start(Order order, int64_t now) {
  size_t bytes = bytesOf(order);
  for (const Order& waiting : m_waiting) bytes += waiting.user == order.user ? bytesOf(waiting) : 0;
  const bool userIsFirst = bytes == bytesOf(order);
  if (m_waiting.size() >= kMaxWaitingPreloads || (!userIsFirst && bytes > kMaxWaitingPreloadBytes)) {
    m_mailbox->put({order.ticket, {Status::FAILED, "too many requests to read files ahead wait already"}});
    return;
  }
  m_waiting.push_back(std::move(order));
  startWaiting(now);
}

void Preloads::startWaiting(int64_t now) {
  for (auto next = m_waiting.begin(); next != m_waiting.end() && m_running.size() < kMaxPreloadThreads;) {
    const auto own = std::find_if(m_running.begin(), m_running.end(),
                                  [&](const auto& entry) { return entry.second.user == next->user; });
    if (own != m_running.end() && !own->second.answered) {
      ++next;
      continue;
    }
    if (own != m_running.end()) {
      m_mailbox->put({next->ticket, {Status::FAILED, kNoAnswer}});
      next = m_waiting.erase(next);
      continue;
    }
    const uint64_t ticket = next->ticket;
    m_running[ticket] = {next->user, now + kMaxPreloadMs, false};
    const auto work = [mailbox = m_mailbox, order = std::move(*next)] {
      mailbox->put({order.ticket, preloadFiles(order.files, order.leftOut, order.eyes)});
    };
    next = m_waiting.erase(next);
    try {
      std::thread(work).detach();
    } catch (const std::system_error& error) {
      m_mailbox->put({ticket, failure("a thread to read files ahead", error.code().value())});
    }
  }
}

std::vector<Preloads::Result> Preloads::take(int64_t now) {
  std::vector<Result> results;
  for (Result& result : m_mailbox->take()) {
    const auto running = m_running.find(result.ticket);
    if (running != m_running.end() && running->second.answered) {
      m_running.erase(running);
      continue;
    }
    if (running != m_running.end()) m_running.erase(running);
    results.push_back(std::move(result));
  }
  for (auto& [ticket, running] : m_running) {
    if (running.answered || running.until > now) continue;
    running.answered = true;
    results.push_back({ticket, {Status::FAILED, kNoAnswer}});
  }
  startWaiting(now);
  return results;
}

int64_t Preloads::nextExpiry() const {
  int64_t next = INT64_MAX;
  for (const auto& [ticket, running] : m_running) {
    if (!running.answered) next = std::min(next, running.until);
  }
  return next;
}

}  // namespace service
