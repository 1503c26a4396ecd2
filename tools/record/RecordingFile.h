// A recording that is being written: a pcapng file of whole blocks at any moment.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "shared/UniqueFd.h"
#include "tools/record/Pcapng.h"

namespace record {

/// Blocks are collected in memory and written by flush(). When they cannot be, the file is cut back to its
/// last whole block and recording ends for good, with a problem to tell; nobody else is affected.
///
/// One thread.
class RecordingFile {
 public:
  /// Creates the file (an older one of that name is emptied), "-" for standard output. False with the problem
  /// named.
  bool create(const std::string& path, std::string& problem);

  /// Adds a connection or peer; packets name it by the result.
  size_t addInterface(const std::string& name, const std::string& description);

  /// Adds a packet: tags (ExportedPdu.h) and bytes.
  void add(size_t interface, int64_t timeNs, pcapng::Direction direction, std::string_view tags,
           std::string_view bytes);

  /// Bytes that wait for flush().
  size_t pending() const { return m_pending.size(); }

  /// Writes what waits. False once, when that fails, with the problem named.
  bool flush(std::string& problem);

  /// Whether all that was added up to the last flush() is in the file.
  bool isComplete() const { return m_fd.get() >= 0; }
  uint64_t packets() const { return m_packets; }

 private:
  std::string m_path;
  shared::UniqueFd m_fd;  // none: recording has ended
  std::string m_pending;
  uint64_t m_written = 0;  // bytes in the file
  uint64_t m_packets = 0;
  size_t m_interfaces = 0;
};

}  // namespace record
