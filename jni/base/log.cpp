#include "base/log.h"

const char* TAG = "TARNBOOSTER";
int (*logFunc)(int priority, const char* tag, const char* format, ...) = __android_log_print;

std::atomic<bool> g_debug{false};

void setDebugLogging(bool on) {
  g_debug.store(on, std::memory_order_relaxed);
#ifndef __ANDROID__
  // Android's own log daemon filters for itself, and its call of this name is younger than our minimum API.
  if (on) __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
#endif
}
