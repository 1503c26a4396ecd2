// What the relays share: the loop, the recording, and what is said to the user.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "tools/record/Loop.h"
#include "tools/record/RecordingFile.h"

namespace record {

/// Counts for the line at the end.
struct Counts {
  uint64_t connections = 0, requests = 0, replies = 0;
};

/// What passes is collected and written a moment later, so that it hardly ever waits for the file. Should the
/// file not take any more, one line says so, and forwarding goes on.
class Recorder {
 public:
  /// say  takes lines for the user
  Recorder(RecordingFile& file, std::function<void(const std::string&)> say);

  Loop& loop() { return m_loop; }
  RecordingFile& file() const { return m_file; }
  void say(const std::string& line) const { m_say(line); }
  Counts& counts() { return m_counts; }
  /// Room for one read, for all that run on the loop.
  std::string& buffer() { return m_buffer; }

  /// Runs the loop until `end` is readable. `due` says for how many milliseconds a relay has nothing to do by
  /// itself (-1: nothing at all).
  bool run(int end, const std::function<int()>& due);

  /// Writes what is left.
  void finish();

 private:
  static constexpr size_t kFlushBytes = 65536;  // written as soon as there are so many,
  static constexpr int64_t kFlushMs = 20;       // or so much later

  RecordingFile& m_file;
  const std::function<void(const std::string&)> m_say;
  Loop m_loop;
  Counts m_counts;
  int64_t m_flushAt = 0;  // milliseconds; 0: nothing waits
  std::string m_buffer = std::string(65536, 0);
};

/// The wall clock in nanoseconds.
int64_t nowNs();

}  // namespace record
