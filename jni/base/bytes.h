// Byte-exact little-endian access to wire formats, at any alignment.
//
// Every wire format of the library is little-endian. All targets are too, so a copy of the value's bytes is
// the conversion; the check below keeps that from changing unnoticed.
#pragma once

#include <cstdint>
#include <cstring>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the wire formats need byte swaps on this target");

template <class Number>
inline Number readLe(const uint8_t* from) {
  Number value;
  memcpy(&value, from, sizeof(value));
  return value;
}

inline uint16_t read16le(const uint8_t* from) {
  return readLe<uint16_t>(from);
}
inline uint32_t read32le(const uint8_t* from) {
  return readLe<uint32_t>(from);
}
inline uint64_t read64le(const uint8_t* from) {
  return readLe<uint64_t>(from);
}

inline void write16le(uint8_t* to, uint16_t value) {
  memcpy(to, &value, sizeof(value));
}
inline void write32le(uint8_t* to, uint32_t value) {
  memcpy(to, &value, sizeof(value));
}
inline void write64le(uint8_t* to, uint64_t value) {
  memcpy(to, &value, sizeof(value));
}
