#include "cpuload/cpuText.h"

#include <cstring>

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

/// How many of eight characters are spaces. Eight at a time, since the text is long and its parsing a fifth
/// of what a sample costs otherwise.
int spacesIn(const char* eight) {
  constexpr uint64_t kLow = 0x7F7F7F7F7F7F7F7F, kSpaces = 0x2020202020202020, kOnes = 0x0101010101010101;
  uint64_t word = 0;
  memcpy(&word, eight, sizeof(word));
  word ^= kSpaces;
  const uint64_t others = ((word & kLow) + kLow) | word;  // the top bit of each that is none
  return static_cast<int>((~others >> 7 & kOnes) * kOnes >> 56);
}

/// Where the text goes on with its n-th space, of which `left` are still to come; null when it has fewer.
const char* findSpace(const char* text, const char* end, int left) {
  for (int here = 0; end - text >= 8 && (here = spacesIn(text)) < left; text += 8) left -= here;
  for (; text < end; ++text) {
    if (*text == ' ' && --left == 0) return text;
  }
  return nullptr;
}

}  // namespace

ThreadStat parseThreadStat(const char* text) {
  ThreadStat stat;
  const char* const end = text + strlen(text);
  if ((text = findSpace(text, end, kUtimeSpace)) == nullptr) return stat;
  stat.utime = parseNumber(text);
  if ((text = findSpace(text + 1, end, kStimeSpace - kUtimeSpace)) == nullptr) return stat;
  stat.stime = parseNumber(text);
  if ((text = findSpace(text + 1, end, kProcessorSpace - kStimeSpace)) == nullptr) return stat;
  stat.processor = parseNumber(text);
  return stat;
}

int32_t parseFrequency(const char* text) {
  return *text == '\0' || *text == ' ' ? -1 : parseNumber(text);
}
