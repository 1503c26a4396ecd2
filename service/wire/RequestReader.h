// Framing: cuts a client's byte stream into request packets (the request header is drawn in
// jni/wire/header.h).
//
// What each prefix of the stream leads to:
//   fewer than 32 bytes                     wait for more
//   32 bytes, magic or version wrong        BAD: the stream cannot be trusted any more, not even to find the
//                                           next header
//   32 bytes, dataLen above the bound       BAD
//   32 bytes + part of the body             wait for more; memory grows with what arrived, never with what
//                                           dataLen claims
//   32 bytes + dataLen bytes                one packet; what follows is the next one's header
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace service {

/// The longest body that is accepted, in bytes. A hundred thousand file names of ordinary length fit.
constexpr uint32_t kMaxRequestBody = 16 * 1024 * 1024;

/// One request as it came: the fields of its header that matter here, and its body.
struct RequestPacket {
  uint16_t funcid = 0;
  uint32_t callertid = 0;
  int64_t sendTime = 0;   // microseconds, the client's wall clock
  int64_t timestamp = 0;  // nanoseconds, the application's; a reply carries it back
  std::vector<uint8_t> body;
};

class RequestReader {
 public:
  enum class Result { MORE_NEEDED, PACKET, BAD };

  /// Adds bytes to the end of the stream.
  void append(const uint8_t* bytes, size_t count);

  /// Takes the next whole packet off the front of the stream. Call until it returns something other than
  /// PACKET. After BAD the stream is at its end; `problem` says why.
  Result next(RequestPacket& packet, std::string& problem);

  /// Whether next() would return something other than MORE_NEEDED.
  bool hasNext() const;

  /// Forgets what has arrived and was not taken.
  void drop() { m_start = m_bytes.size(); }

  /// The memory that it takes, in bytes.
  size_t memory() const { return m_bytes.capacity(); }

  /// Whether the stream stands between two packets (not inside one).
  bool atBoundary() const { return m_start == m_bytes.size(); }

 private:
  size_t packetEnd() const;

  std::vector<uint8_t> m_bytes;
  size_t m_start = 0;  // the first byte not yet taken
};

/// Checks a request header: empty text when good, otherwise what is wrong with it.
/// header  32 bytes
std::string checkRequestHeader(const uint8_t* header);

/// Reads one whole packet from a message that holds exactly one (a transport with message boundaries).
/// Returns false, with the problem named, when it does not.
bool readRequestMessage(const uint8_t* bytes, size_t count, RequestPacket& packet, std::string& problem);

}  // namespace service
