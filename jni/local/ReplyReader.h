// Cuts the byte stream from the service into replies: a 32-byte header (header.h), then dataLen bytes of
// body.
//
// Invariant: m_headerCount bytes of the header are in; once all 32 are, the body holds dataLen bytes of which
// those from the count kept at its start up to m_bodyCount have arrived and all others are zero.
//
//   stream  |hhhh|hhhh|bbbbbbb|hhhhhhhh|hhhhhhhh|bbb...
//            a prefix of a header, of a body, or nothing: kept until the next bytes
//            a whole header without a body, or a whole body: one reply
//            32 bytes that do not start with the magic: dropped with the rest of the same read; no search for
//            the next header is made, the next read starts one at its first byte
//
// The kept count: the body count is deliberately not reset after a reply, nor after a bad header. The next
// reply's body starts at that count: one of the same length is complete with its header and all zero, a
// longer one has only its tail filled. A service that sends bodies of its own puts a reply without a body
// between two of them. A reply shorter than the kept count starts again at 0 and arrives whole (our choice),
// which is what that reply does.
//
// Of a body above 64 MiB, which nobody looks at, the bytes are only counted; it is all zero.
//
// Owned and used by one thread, the engine's loop thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "wire/header.h"

/// Zero-filled memory: a few KiB that are always at hand, or else pages that become resident only where they
/// are written, so that a dataLen that is merely claimed costs address space and nothing else.
class LazyBytes {
 public:
  LazyBytes() = default;
  ~LazyBytes() { reset(); }
  LazyBytes(const LazyBytes&) = delete;
  LazyBytes& operator=(const LazyBytes&) = delete;

  /// Allocates `length` bytes (at least 1), all zero. False when there is no memory for them.
  bool allocate(size_t length);
  void reset();
  uint8_t* data() { return m_data; }
  const uint8_t* data() const { return m_data; }

 private:
  static constexpr size_t kSmallBytes = 4096;

  uint8_t* m_data = nullptr;  // m_small, or owned: a private mapping of m_length bytes
  size_t m_length = 0;
  uint8_t m_small[kSmallBytes];
};

class ReplyReader {
 public:
  enum class Result {
    NeedMore,  // all bytes are used, the reply is not complete
    Complete,  // a reply is complete: take header(), body(), then next()
    BadMagic,  // not a header: call next() and drop the rest of the read
    NoMemory,  // no memory for the body: read on, which skips it
    Lost,      // past such a body: call next()
  };

  /// Takes bytes in from data[*used], advancing *used, until a reply is complete or length bytes are used.
  /// To be called only while *used < length.
  Result read(const uint8_t* data, size_t length, size_t* used);

  /// The complete header, or the refused one.
  const ReplyHeader& header() const { return m_header; }
  /// The complete body, header().dataLen bytes; null when that is 0. Valid until next().
  const uint8_t* body() const { return m_body.data(); }

  /// Starts on the next reply; the count of body bytes stays what it is (see above).
  void next();

 private:
  uint8_t m_headerBytes[kHeaderBytes] = {};
  uint32_t m_headerCount = 0;
  ReplyHeader m_header = {};  // valid while m_headerCount is 32
  LazyBytes m_body;           // empty until the header is in
  uint32_t m_bodyCount = 0;   // never reset by next(): the kept count
  bool m_lost = false;        // no memory for the body; valid while m_headerCount is 32
};
