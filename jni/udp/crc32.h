// The checksum of the transport's datagrams.
#pragma once

#include <cstddef>
#include <cstdint>

/// The CRC-32 of IEEE 802.3 (reflected, 0xEDB88320) of `length` bytes; 0 of none. The first call finds out
/// what the processor can do. Any thread.
uint32_t crc32(const uint8_t* bytes, uint32_t length);

namespace udp {

/// One way of computing it: takes and returns the register, which begins as 0xFFFFFFFF and is inverted at the
/// end.
struct CrcWay {
  const char* name;
  uint32_t (*update)(uint32_t crc, const uint8_t* bytes, size_t length);
};

/// Way 0 runs anywhere, the following need what this processor has, the last one is the fastest. Null beyond.
const CrcWay* crcWay(unsigned index);

}  // namespace udp
