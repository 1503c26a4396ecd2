// The numbers that tracing takes out of the kernel's texts.
//
// All numbers are decimal and are read as atoi() reads them (blanks and one sign in front, up to the first
// character that is no digit, 0 without a digit), but wrap in 32 bits whatever their length.
#pragma once

#include <cstdint>

/// What a thread's stat text says of it.
struct ThreadStat {
  int32_t utime = -1;      ///< user ticks; -1 when the text ends before the field
  int32_t stime = -1;      ///< system ticks; -1 when the text ends before the field
  int32_t processor = -1;  ///< the CPU it last ran on; -1 when the text ends before the field
};

/// Reads /proc/self/task/TID/stat. The fields are found by counting single spaces from the start of the text:
/// utime begins at the 13th, stime at the 14th, processor at the 38th. A thread name that holds spaces shifts
/// them all; the counting is deliberately that naive, and such threads give wrong or skipped samples.
ThreadStat parseThreadStat(const char* text);

/// Reads scaling_cur_freq: kilohertz, or -1 for a text that is empty or begins with a space.
int32_t parseFrequency(const char* text);
