// A small text file of /proc or /sys that is opened once and read from its start again at every poll.
//
// It stays open between polls, because reopening costs more than reading. A file that yields nothing any more
// (its thread ended, its CPU went offline) is closed and looked up again at the next poll.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

/// Not thread-safe: one thread at a time, which is the sampler's while one runs.
class PolledFile {
 public:
  /// The most of a file that a poll reads, in bytes. The buffer has one more, for the terminator.
  static constexpr size_t kTextBytes = 4096;

  /// Remembers the path (a copy) and opens nothing.
  explicit PolledFile(std::string path);
  ~PolledFile();
  PolledFile(const PolledFile&) = delete;
  PolledFile& operator=(const PolledFile&) = delete;

  /// Reads the file and returns its text, NUL-terminated, which stays this object's and is valid until the
  /// next poll. A file that cannot be opened leaves the text of the previous poll ("" before the first); a
  /// read that fails or finds nothing makes the text empty and closes the file. One system call while the
  /// file is open; never allocates.
  const char* poll();

 private:
  std::string m_path;
  int m_fd = 0;  // 0 = not open; close-on-exec and above 2
  std::unique_ptr<char[]> m_buf;
};
