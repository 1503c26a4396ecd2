#include "cpuload/PolledFile.h"

#include <unistd.h>

#include <utility>

#include "base/descriptor.h"

// Not make_unique: that clears the buffer, and most CPUs' pages are never touched.
PolledFile::PolledFile(std::string path) : m_path(std::move(path)), m_buf(new char[kTextBytes + 1]) {
  m_buf[0] = '\0';
}

PolledFile::~PolledFile() {
  closeDescriptor(m_fd);
}

const char* PolledFile::poll() {
  if (m_fd == 0) {
    const int fd = openForReading(m_path.c_str());
    if (fd < 0) return m_buf.get();
    m_fd = fd;
  }
  // At offset 0 this is the seek and the read in one call; the kernel writes the text anew for it.
  const ssize_t got = retryEintr([this] { return pread(m_fd, m_buf.get(), kTextBytes, 0); });
  if (got < 1) closeDescriptor(m_fd);
  m_buf[got < 1 ? 0 : got] = '\0';
  return m_buf.get();
}
