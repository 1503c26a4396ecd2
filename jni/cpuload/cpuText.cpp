#include "cpuload/cpuText.h"

namespace {

constexpr int kUtimeSpace = 13, kStimeSpace = 14, kProcessorSpace = 38;  // counted from 1

bool isBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

int32_t parseNumber(const char* text) {
  while (isBlank(*text)) ++text;
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  uint32_t value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) value = value * 10 + static_cast<uint32_t>(*text - '0');
  return static_cast<int32_t>(negative ? 0 - value : value);
}

}  // namespace

ThreadStat parseThreadStat(const char* text) {
  ThreadStat stat;
  int spaces = 0;
  for (; *text != '\0' && spaces < kProcessorSpace; ++text) {
    if (*text != ' ') continue;
    ++spaces;
    if (spaces == kUtimeSpace) stat.utime = parseNumber(text);
    if (spaces == kStimeSpace) stat.stime = parseNumber(text);
    if (spaces == kProcessorSpace) stat.processor = parseNumber(text);
  }
  return stat;
}

int32_t parseFrequency(const char* text) {
  return *text == '\0' || *text == ' ' ? -1 : parseNumber(text);
}
