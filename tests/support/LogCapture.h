// Every log line of the process, for tests. Linking support/LogCapture.cpp puts it in place of the platform's
// log.
#pragma once

#include <string>
#include <vector>

/// The lines since construction, each as "PRIORITY [FILE,FUNCTION:SITE]"MESSAGE"". Any thread may log
/// meanwhile.
class LogCapture {
 public:
  LogCapture();
  /// The lines that contain `text`.
  std::vector<std::string> linesWith(const std::string& text) const;
  int count(const std::string& text) const { return static_cast<int>(linesWith(text).size()); }

 private:
  size_t m_start;
};
