#include "tools/record/RecordingFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/bytes.h"
#include "base/descriptor.h"
#include "shared/Text.h"

namespace record {
namespace {

/// How many of the first `count` bytes of `blocks` are whole blocks.
size_t wholeBlocks(const std::string& blocks, size_t count) {
  size_t end = 0;
  while (end + 8 <= count) {
    const uint32_t length = read32le(reinterpret_cast<const uint8_t*>(&blocks[end + 4]));
    if (length > count - end) break;
    end += length;
  }
  return end;
}

}  // namespace

bool RecordingFile::create(const std::string& path, std::string& problem) {
  m_path = path;
  const int fd = path == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)
                             : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  m_fd = shared::UniqueFd(keepAboveStdio(fd));
  pcapng::appendSectionHeader(m_pending);
  if (m_fd && flush(problem)) return true;
  if (problem.empty()) problem = "cannot write to " + path + ": " + shared::errorText(errno);
  return false;
}

size_t RecordingFile::addInterface(const std::string& name, const std::string& description) {
  pcapng::Interface interface;
  interface.name = name;
  interface.description = description;
  if (m_fd) pcapng::appendInterface(m_pending, interface);
  return m_interfaces++;
}

void RecordingFile::add(size_t interface, int64_t timeNs, pcapng::Direction direction, std::string_view tags,
                        std::string_view bytes) {
  if (!m_fd) return;
  pcapng::appendPacket(m_pending, interface, timeNs, direction, tags, bytes);
  ++m_packets;
}

bool RecordingFile::flush(std::string& problem) {
  size_t done = 0;
  while (m_fd && done < m_pending.size()) {
    const ssize_t count =
        retryEintr([&] { return write(m_fd.get(), m_pending.data() + done, m_pending.size() - done); });
    if (count <= 0) {
      problem = "cannot write to " + m_path + ": " + shared::errorText(errno);
      const uint64_t whole = m_written + wholeBlocks(m_pending, done);
      // Fails on a pipe, which is broken then in any case.
      [[maybe_unused]] const int result = ftruncate(m_fd.get(), static_cast<off_t>(whole));
      m_fd = shared::UniqueFd();
      m_pending.clear();
      return false;
    }
    done += static_cast<size_t>(count);
  }
  m_written += done;
  m_pending.clear();
  return true;
}

}  // namespace record
