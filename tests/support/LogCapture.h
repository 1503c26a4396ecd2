// Every log line of the process, for tests. Linking LogCapture.cpp puts it in place of the platform's log.
#pragma once

#include <string>
#include <vector>

/// The lines since construction, each as "PRIORITY [FILE,FUNCTION:SITE]"MESSAGE"", from any thread. With
/// `debug` the debugging lines are among them until the destruction.
class LogCapture {
 public:
  explicit LogCapture(bool debug = false);
  ~LogCapture();
  /// The lines that contain `text`.
  std::vector<std::string> linesWith(const std::string& text) const;
  int count(const std::string& text) const { return static_cast<int>(linesWith(text).size()); }

 private:
  const bool m_debug;
  size_t m_start;
};
