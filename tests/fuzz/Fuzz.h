// What every fuzzer needs: input taken apart, the library's log counted instead of written, and checks.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"

/// Ends the process, which libFuzzer reports with the input, when `condition` does not hold.
#define FUZZ_CHECK(condition)                                                 \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      abort();                                                                \
    }                                                                         \
  } while (0)

/// The library's lines of this input, by priority; each is formatted, so that its arguments are read.
struct FuzzLog {
  static inline int errors = 0, warnings = 0;
  static void reset() { errors = warnings = 0; }

 private:
  __attribute__((format(printf, 3, 4))) static int count(int priority, const char* /*tag*/,
                                                         const char* format, ...) {
    static thread_local char line[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    errors += priority == ANDROID_LOG_ERROR ? 1 : 0;
    warnings += priority == ANDROID_LOG_WARN ? 1 : 0;
    return 0;
  }
  static inline const bool installed = (logFunc = count) != nullptr;
};
