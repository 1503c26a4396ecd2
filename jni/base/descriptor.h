// Opening descriptors the way the library needs them: close-on-exec and above 2.
//
// Above 2, because an application may run with 0 to 2 closed, because 0 means "none" in every descriptor
// field of the library, and because the loops never examine 0 to 2.
#pragma once

#include <cerrno>

/// Repeats a call that a signal interrupted. Never put around close().
template <class Call>
inline auto retryEintr(Call call) -> decltype(call()) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

/// Takes over a fresh descriptor (or a failed call's -1, which is returned with errno kept) and returns the
/// same file under a number above 2, close-on-exec; -1 with errno set, and the given one closed, on failure.
int keepAboveStdio(int fd);

/// socket(domain, type, protocol), close-on-exec and above 2. `type` may carry SOCK_NONBLOCK. -1 with errno.
int openSocket(int domain, int type, int protocol);

/// open(path) for reading, close-on-exec and above 2. -1 with errno.
int openForReading(const char* path);

/// Closes fd if it is open (non-zero) and sets it to 0. errno is kept.
void closeDescriptor(int& fd);
