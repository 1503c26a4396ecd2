#include "service/effects/Preload.h"

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "shared/Text.h"
#include "shared/UniqueFd.h"

namespace service {
namespace {

constexpr uid_t kNobody = 65534;

/// File access with the rights of somebody else, for the life of the object. Only root can, and only root
/// needs to. Affects this thread alone.
class BorrowedEyes {
 public:
  explicit BorrowedEyes(const Process* owner) : m_borrowed(geteuid() == 0) {
    if (!m_borrowed) return;
    // The group first: without root's user id the group could not be changed any more.
    setfsgid(owner != nullptr ? owner->gid() : kNobody);
    setfsuid(owner != nullptr ? owner->uid() : kNobody);
  }
  ~BorrowedEyes() {
    if (!m_borrowed) return;
    setfsuid(geteuid());
    setfsgid(getegid());
  }
  BorrowedEyes(const BorrowedEyes&) = delete;
  BorrowedEyes& operator=(const BorrowedEyes&) = delete;

 private:
  const bool m_borrowed;
};

Outcome preloadFile(const std::string& path) {
  const std::string shown = "\"" + shared::printable(path) + "\"";
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos) {
    return {Status::BAD_ARGUMENT, shown + " is no absolute path"};
  }
  // O_PATH only finds the file: opening a fifo would wait, opening a device may do something.
  const shared::UniqueFd found(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status {};
  if (!found || fstat(found.get(), &status) != 0) return failure(shown, errno);
  if (!S_ISREG(status.st_mode)) return {Status::BAD_ARGUMENT, shown + " is no regular file"};
  const std::string same = "/proc/self/fd/" + std::to_string(found.get());
  const shared::UniqueFd file(open(same.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return failure(shown, errno);
  const int error = posix_fadvise(file.get(), 0, 0, POSIX_FADV_WILLNEED);
  if (error != 0) return failure(shown, error);
  return {Status::DONE, "reads ahead " + shown + ", " + std::to_string(status.st_size) + " bytes"};
}

}  // namespace

Outcome preloadFiles(const std::vector<std::string>& files, const Process* requester) {
  if (files.empty()) return {Status::DONE, "no files named, nothing to read ahead"};
  const BorrowedEyes eyes(requester);
  OutcomeSum outcome;
  for (size_t i = 0; i < std::min(files.size(), kMaxPreloadFiles); ++i) {
    outcome.add(preloadFile(files[i]));
  }
  if (files.size() > kMaxPreloadFiles) {
    outcome.add({Status::BAD_ARGUMENT,
                 "only the first " + std::to_string(kMaxPreloadFiles) + " of the files are looked at"});
  }
  return outcome.sum();
}

}  // namespace service
