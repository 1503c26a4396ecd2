#include "LogCapture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "log.h"

namespace {

std::mutex g_linesLock;
std::vector<std::string>& g_lines =
    *new std::vector<std::string>;  // guarded by g_linesLock; outlives all threads

__attribute__((format(printf, 3, 4))) int capture(int priority, const char* tag, const char* format, ...) {
  char text[2048];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  const std::lock_guard<std::mutex> lock(g_linesLock);
  g_lines.push_back((std::string(tag) == "TARNBOOSTER" ? "" : "WRONG TAG ") + std::to_string(priority) + " " +
                    text);
  return 1;
}

// In place before any thread runs, and never taken out: threads of the library outlive the tests.
const bool g_installed = (logFunc = capture) != nullptr;

}  // namespace

LogCapture::LogCapture() {
  const std::lock_guard<std::mutex> lock(g_linesLock);
  m_start = g_lines.size();
}

std::vector<std::string> LogCapture::linesWith(const std::string& text) const {
  const std::lock_guard<std::mutex> lock(g_linesLock);
  std::vector<std::string> found;
  for (size_t i = m_start; i < g_lines.size(); ++i) {
    if (g_lines[i].find(text) != std::string::npos) found.push_back(g_lines[i]);
  }
  return found;
}
