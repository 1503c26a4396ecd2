// Ownership of one descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace shared {

class UniqueFd {
 public:
  UniqueFd() = default;
  /// Takes over fd, or a failed call's -1.
  explicit UniqueFd(int fd) : m_fd(fd) {}
  ~UniqueFd() {
    if (m_fd >= 0) close(m_fd);
  }
  UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }

  int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

 private:
  int m_fd = -1;
};

}  // namespace shared
