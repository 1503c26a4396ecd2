#include "udp/crc32.h"

#include <cstring>

#ifdef __aarch64__
#include <sys/auxv.h>
#endif
#ifdef __x86_64__
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace {

constexpr uint32_t kPolynomial = 0xEDB88320;

// ---- Anywhere: sixteen bytes at a time
// ----------------------------------------------------------------------

// Table n holds what a byte n bytes further back makes of the register. Computed when first needed: 16 KiB
// that are not in the file, and not in memory either where the processor does without them.
struct Tables {
  Tables() {
    for (uint32_t index = 0; index < 256; ++index) {
      uint32_t entry = index;
      for (int bit = 0; bit < 8; ++bit) entry = (entry & 1) != 0 ? entry >> 1 ^ kPolynomial : entry >> 1;
      of[0][index] = entry;
    }
    for (int back = 1; back < 16; ++back) {
      for (int index = 0; index < 256; ++index) {
        const uint32_t nearer = of[back - 1][index];
        of[back][index] = of[0][nearer & 0xFF] ^ nearer >> 8;
      }
    }
  }
  uint32_t of[16][256];
};

uint32_t sliced(uint32_t crc, const uint8_t* bytes, size_t length) {
  static const Tables tables;
  const auto& of = tables.of;
  const auto four = [&](uint32_t word, int back) {
    return of[back][word & 0xFF] ^ of[back - 1][word >> 8 & 0xFF] ^ of[back - 2][word >> 16 & 0xFF] ^
           of[back - 3][word >> 24];
  };
  for (; length >= 16; length -= 16, bytes += 16) {
    uint32_t words[4];
    memcpy(words, bytes, sizeof(words));
    crc = four(words[0] ^ crc, 15) ^ four(words[1], 11) ^ four(words[2], 7) ^ four(words[3], 3);
  }
  for (; length >= 4; length -= 4, bytes += 4) {
    uint32_t word = 0;
    memcpy(&word, bytes, sizeof(word));
    crc = four(word ^ crc, 3);
  }
  for (; length > 0; --length, ++bytes) crc = of[0][(crc ^ *bytes) & 0xFF] ^ crc >> 8;
  return crc;
}

// ---- 64-bit Arm: an instruction for it
// ----------------------------------------------------------------------

#ifdef __aarch64__
uint32_t instruction(uint32_t crc, const uint8_t* bytes, size_t length) {
  for (; length >= 8; length -= 8, bytes += 8) {
    uint64_t word = 0;
    memcpy(&word, bytes, sizeof(word));
    asm(".arch_extension crc\n\tcrc32x %w0, %w0, %x1" : "+r"(crc) : "r"(word));
  }
  for (; length > 0; --length, ++bytes) {
    asm(".arch_extension crc\n\tcrc32b %w0, %w0, %w1" : "+r"(crc) : "r"(*bytes));
  }
  return crc;
}

bool hasInstruction() {
  constexpr unsigned long kCrc32 = 1 << 7;  // NOLINT(google-runtime-int): HWCAP_CRC32 of <asm/hwcap.h>
  return (getauxval(AT_HWCAP) & kCrc32) != 0;
}
#endif

// ---- x86-64: multiplication without carries
// -----------------------------------------------------------------

#ifdef __x86_64__
// Folding as in Gopal et al., "Fast CRC Computation for Generic Polynomials Using PCLMULQDQ Instruction"
// (Intel, 2009), for a reflected polynomial: four registers of 16 bytes, each of which moves 64 bytes on in
// one step, then are folded into one. The constants are the powers x^(8n ± 32) modulo the polynomial that the
// paper names; the last 16 bytes and what is left over go through the table.
#define TARN_CLMUL __attribute__((target("pclmul,sse4.1")))

TARN_CLMUL inline __m128i folded(__m128i value, __m128i power, __m128i next) {
  return _mm_xor_si128(next, _mm_xor_si128(_mm_clmulepi64_si128(value, power, 0x00),
                                           _mm_clmulepi64_si128(value, power, 0x11)));
}

TARN_CLMUL inline __m128i load(const uint8_t* bytes) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

TARN_CLMUL uint32_t carryless(uint32_t crc, const uint8_t* bytes, size_t length) {
  if (length < 64) return sliced(crc, bytes, length);
  const __m128i by64 = _mm_set_epi64x(0x1C6E41596, 0x154442BD4);
  const __m128i by16 = _mm_set_epi64x(0x0CCAA009E, 0x1751997D0);
  __m128i lanes[4];
  for (size_t lane = 0; lane < 4; ++lane) lanes[lane] = load(bytes + 16 * lane);
  lanes[0] = _mm_xor_si128(lanes[0], _mm_cvtsi32_si128(static_cast<int>(crc)));
  bytes += 64;
  length -= 64;
  for (; length >= 64; length -= 64, bytes += 64) {
    for (size_t lane = 0; lane < 4; ++lane) lanes[lane] = folded(lanes[lane], by64, load(bytes + 16 * lane));
  }
  __m128i all = lanes[0];
  for (int lane = 1; lane < 4; ++lane) all = folded(all, by16, lanes[lane]);
  for (; length >= 16; length -= 16, bytes += 16) all = folded(all, by16, load(bytes));
  uint8_t rest[16];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(rest), all);
  return sliced(sliced(0, rest, sizeof(rest)), bytes, length);
}
#endif

}  // namespace

const udp::CrcWay* udp::crcWay(unsigned index) {
  static const CrcWay kWays[] = {
      {"sliced", sliced},
#ifdef __aarch64__
      {"crc32x", instruction},
#endif
#ifdef __x86_64__
      {"pclmul", carryless},
#endif
  };
  static const unsigned usable = [] {
#ifdef __aarch64__
    return hasInstruction() ? 2U : 1U;
#elif defined(__x86_64__)
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    constexpr unsigned kNeeded = bit_PCLMUL | bit_SSE4_1;
    return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & kNeeded) == kNeeded ? 2U : 1U;
#else
    return 1U;
#endif
  }();
  return index < usable ? &kWays[index] : nullptr;
}

uint32_t crc32(const uint8_t* bytes, uint32_t length) {
  static const auto update = (udp::crcWay(1) != nullptr ? udp::crcWay(1) : udp::crcWay(0))->update;
  return ~update(0xFFFFFFFF, bytes, length);
}
