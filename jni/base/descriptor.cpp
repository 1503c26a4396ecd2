#include "base/descriptor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

int keepAboveStdio(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  const int kept = errno;
  close(fd);  // not closeDescriptor(): a fresh descriptor may well be number 0
  errno = kept;
  return moved;
}

int openSocket(int domain, int type, int protocol) {
  return keepAboveStdio(socket(domain, type | SOCK_CLOEXEC, protocol));
}

int openForReading(const char* path) {
  return keepAboveStdio(retryEintr([path] { return open(path, O_RDONLY | O_CLOEXEC); }));
}

void closeDescriptor(int& fd) {
  if (fd == 0) return;
  const int kept = errno;
  close(fd);
  errno = kept;
  fd = 0;
}
