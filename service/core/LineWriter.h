// Writes the service's lines to a descriptor, on a thread of its own: a terminal that was stopped, or a log
// reader that does not read, never holds the service up.
//
// Lines that the reader leaves no room for are dropped, and their number is told as soon as there is room.
#pragma once

#include <memory>
#include <string>

#include "service/core/Log.h"

namespace service {

/// What stands in front of a line.
enum class LineStyle {
  PLAIN,    // nothing
  TIME,     // "2026-11-21 17:05:26.123 warning: ", the local time; the priority of warnings and debug lines
  JOURNAL,  // "<4>", as systemd's journal takes priorities from standard output (sd-daemon(3))
};

/// JOURNAL when fd is the stream that systemd's journal reads, by the environment variable JOURNAL_STREAM;
/// else TIME.
LineStyle lineStyleFor(int fd);

/// A line with its front, and its end.
std::string styledLine(LineStyle style, Priority priority, const std::string& line);

/// Bytes of lines that may wait to be written.
constexpr size_t kMaxWaitingLines = size_t{1024} * 1024;

class LineWriter {
 public:
  /// fd  stays the caller's, and open
  LineWriter(int fd, LineStyle style);
  /// Waits for what is still to be written, a second at most.
  ~LineWriter();
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  /// Any thread; never waits.
  void put(Priority priority, const std::string& line);

 private:
  struct Shared;  // with the thread, which may outlive the object while its descriptor blocks
  static void write(const std::shared_ptr<Shared>& shared);

  const std::shared_ptr<Shared> m_shared;
};

}  // namespace service
