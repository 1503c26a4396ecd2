// The library's log: one sink, one line format, one debug switch.
//
// Every line reads [FILE,FUNCTION:SITE]"MESSAGE" and goes to `logFunc` under `TAG`. The macros below are the
// only callers of `logFunc`; the compiler checks every format against its arguments.
//
// SITE is the source line of the statement, or, with the _AT macros, the fixed site number of that line:
// people and scripts that read these logs know the numbered lines by it, so the number stays what it is on
// whatever line the statement comes to stand. FUNCTION is the enclosing function; where a step of a named
// operation is a function of its own, the _IN macros keep the operation's name.
//
// A file whose lines belong to another unit defines LOG_FILE_NAME before it includes this header.
#pragma once

#include <android/log.h>

#include <atomic>
#include <cstdint>

#include "base/export.h"

extern "C" {
/// The log tag of every line: "TARNBOOSTER". Exported; not changed by the library after load.
extern TARN_EXPORT const char* TAG;

/// The log sink, `__android_log_print` at load. Exported; whoever replaces it does so before any other
/// thread of the library runs, and the replacement must be callable from every thread (few of them are
/// attached to the VM) and must not call back into the library (some lines are written under its locks).
extern TARN_EXPORT int (*logFunc)(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
}

/// The debug switch (false at load). Relaxed: a change is seen at the next log site a thread reaches.
extern std::atomic<bool> g_debug;

/// Sets the debug switch; on a desktop, switching on also lets the host's log pass DEBUG lines, which it
/// drops by default: those of the whole process, the application's own too, and switching off does not take
/// it back.
void setDebugLogging(bool on);

/// The low 32 bits of an address, as log lines show pointers.
inline int addressBits(const void* address) {
  return static_cast<int>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address)));
}

/// A text for "%s" that may be null.
inline const char* shownText(const char* text) {
  return text != nullptr ? text : "(null)";
}

#ifndef LOG_FILE_NAME
#define LOG_FILE_NAME __FILE_NAME__
#endif

#define LOG_LINE_IN(priority, function, site, message, ...) \
  logFunc(priority, TAG, "[%s,%s:%d]\"" message "\"", LOG_FILE_NAME, function, site, ##__VA_ARGS__)

/// DEBUG: a trace; nothing, the arguments included, is evaluated while `g_debug` is off.
#define LOG_DEBUG_IN(function, site, message, ...)                            \
  do {                                                                        \
    if (g_debug.load(std::memory_order_relaxed)) {                            \
      LOG_LINE_IN(ANDROID_LOG_DEBUG, function, site, message, ##__VA_ARGS__); \
    }                                                                         \
  } while (0)
#define LOG_DEBUG_AT(site, message, ...) LOG_DEBUG_IN(__func__, site, message, ##__VA_ARGS__)
#define LOG_DEBUG(message, ...) LOG_DEBUG_AT(__LINE__, message, ##__VA_ARGS__)

/// WARN: a notice of a connection or protocol; always written.
#define LOG_WARN_IN(function, site, message, ...) \
  LOG_LINE_IN(ANDROID_LOG_WARN, function, site, message, ##__VA_ARGS__)
#define LOG_WARN_AT(site, message, ...) LOG_WARN_IN(__func__, site, message, ##__VA_ARGS__)
#define LOG_WARN(message, ...) LOG_WARN_AT(__LINE__, message, ##__VA_ARGS__)

/// ERROR: a failure, written once where it is detected; always written.
#define LOG_ERROR_IN(function, site, message, ...) \
  LOG_LINE_IN(ANDROID_LOG_ERROR, function, site, message, ##__VA_ARGS__)
#define LOG_ERROR_AT(site, message, ...) LOG_ERROR_IN(__func__, site, message, ##__VA_ARGS__)
#define LOG_ERROR(message, ...) LOG_ERROR_AT(__LINE__, message, ##__VA_ARGS__)
