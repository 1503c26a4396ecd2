// The 32-byte headers in front of every request and every reply, whichever transport carries them.
//
// All integers are little-endian, nothing is padded. The two layouts differ on purpose from byte 8 on; they
// are kept as two descriptions, do not unify them.
//
//   request (written here)                          reply (read here)
//   offset width field                              offset width field
//   0      u32   magic 0x48444352, bytes "RCDH"     0      u32   magic, the same
//   4      u16   version, always 4                  4      u16   not read
//   6      u16   funcid                             6      u16   funcid
//   8      u32   dataLen: body bytes that follow    8      u32   status
//   12     i64   sendTime, microseconds (unaligned) 12     u32   dataLen: body bytes that follow
//   20     u32   callertid                          16     u64   word16, handed on, unused
//   24     i64   timestamp, nanoseconds             24     i64   timestamp, nanoseconds
#pragma once

#include <cstdint>

constexpr uint32_t kHeaderMagic = 0x48444352;
constexpr uint32_t kHeaderBytes = 32;
constexpr uint16_t kRequestVersion = 4;
constexpr uint32_t kMaxFuncid = 65535;
constexpr uint32_t kMaxBodyBytes = INT32_MAX - kHeaderBytes;  // a packet's length is a signed 32-bit number

namespace request_header {
constexpr int kMagic = 0, kVersion = 4, kFuncid = 6, kDataLen = 8, kSendTime = 12, kCallertid = 20,
              kTimestamp = 24;
static_assert(kTimestamp + sizeof(int64_t) == kHeaderBytes, "the request header is 32 bytes");
}  // namespace request_header

namespace reply_header {
constexpr int kMagic = 0, kFuncid = 6, kStatus = 8, kDataLen = 12, kWord16 = 16, kTimestamp = 24;
static_assert(kTimestamp + sizeof(int64_t) == kHeaderBytes, "the reply header is 32 bytes");
}  // namespace reply_header

/// Packs a request: the header, then a copy of the body.
///
/// funcid      the function identifier, at most 65535
/// data        the body (the serialised message); may be null when dataLen is 0. Not kept.
/// dataLen     body bytes; a negative length, or one above kMaxBodyBytes, is refused like
///             missing data
/// outBuf      receives the packet, dataLen + 32 bytes; the caller owns it and frees it with delete[]
/// outLen      receives dataLen + 32
/// callertid   the calling thread's id, as the application gave it
/// timestamp   the caller's time stamp in nanoseconds, copied unchanged
///
/// Returns the send time in the header, wall-clock microseconds (> 0); -1 when data is missing or there is no
/// memory for the packet; -2 when funcid is above 65535. Nothing is handed out then, and one ERROR line says
/// why. Callers treat any result < 1 as failure. Any thread.
int64_t genReqPack(uint32_t funcid, const uint8_t* data, int32_t dataLen, uint8_t** outBuf, uint32_t* outLen,
                   uint32_t callertid, int64_t timestamp);

/// A reply header taken apart. `magic` is not checked here.
struct ReplyHeader {
  uint32_t magic;
  uint16_t funcid;
  uint32_t status;
  uint32_t dataLen;
  uint64_t word16;
  int64_t timestamp;
};

/// Reads the 32 bytes at `bytes`.
ReplyHeader readReplyHeader(const uint8_t* bytes);
