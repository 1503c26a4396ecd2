#include "base/WakePipe.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/descriptor.h"

int WakePipe::open() {
  close();
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
  int readEnd = keepAboveStdio(ends[0]);
  int writeEnd = keepAboveStdio(ends[1]);
  if (readEnd < 0 || writeEnd < 0) {
    const int kept = errno;
    if (readEnd >= 0) ::close(readEnd);
    if (writeEnd >= 0) ::close(writeEnd);
    errno = kept;
    return -1;
  }
  std::lock_guard<std::mutex> lock(m_lock);
  m_readEnd = readEnd;
  m_writeEnd = writeEnd;
  return 0;
}

void WakePipe::close() {
  std::lock_guard<std::mutex> lock(m_lock);
  closeDescriptor(m_readEnd);
  closeDescriptor(m_writeEnd);
}

void WakePipe::wake() {
  std::lock_guard<std::mutex> lock(m_lock);
  if (m_writeEnd == 0) return;
  const int value = m_writeEnd;
  const auto written = retryEintr([&] { return write(m_writeEnd, &value, sizeof(value)); });
  static_cast<void>(written);  // only a full pipe refuses, and a full pipe is readable
}

int WakePipe::drain() {
  int value = 0;
  // Without the lock: nobody but the loop thread closes the pipe while the loop runs.
  return static_cast<int>(retryEintr([&] { return read(m_readEnd, &value, sizeof(value)); }));
}

int WakePipe::readEnd() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_readEnd;
}

int WakePipe::writeEnd() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_writeEnd;
}
