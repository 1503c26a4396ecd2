#include "LogCapture.h"

#include <algorithm>
#include <cstdarg>
#include <mutex>

#include "base/log.h"

namespace {

std::mutex g_linesLock;
auto& g_lines = *new std::vector<std::string>;  // guarded by g_linesLock; outlives all threads

__attribute__((format(printf, 3, 4))) int capture(int priority, const char* tag, const char* format, ...) {
  char text[2048];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  const std::string start = std::string(tag) == "TARNBOOSTER" ? "" : "WRONG TAG ";
  const std::lock_guard<std::mutex> lock(g_linesLock);
  g_lines.push_back(start + std::to_string(priority) + " " + text);
  return 1;
}

// In place before any thread runs, and never taken out: threads of the library outlive the tests.
const bool g_installed = (logFunc = capture) != nullptr;

}  // namespace

LogCapture::LogCapture(bool debug) : m_debug(debug) {
  if (debug) setDebugLogging(true);
  const std::lock_guard<std::mutex> lock(g_linesLock);
  m_start = g_lines.size();
}

LogCapture::~LogCapture() {
  if (m_debug) setDebugLogging(false);
}

std::vector<std::string> LogCapture::linesWith(const std::string& text) const {
  const std::lock_guard<std::mutex> lock(g_linesLock);
  std::vector<std::string> found;
  std::copy_if(g_lines.begin() + m_start, g_lines.end(), std::back_inserter(found),
               [&](const std::string& line) { return line.find(text) != std::string::npos; });
  return found;
}
