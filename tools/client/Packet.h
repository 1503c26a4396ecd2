// Requests as bytes, and replies cut out of a stream (the headers are drawn in wire/header.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "wire/header.h"

namespace client {

/// A longer body of a reply is taken for a broken one: in bytes.
constexpr uint32_t kMaxReplyBody = 64 << 20;

/// A request as bytes, with the send time of this moment.
/// timestamp  nanoseconds; a reply bears it, too
std::string packRequest(uint16_t funcid, std::string_view body, uint32_t callertid, int64_t timestamp);

/// One reply or push as it came.
struct Reply {
  ReplyHeader header{};
  std::string body;
  /// It has a body, and so had the reply before it on the same stream: the framing rule is broken, and an
  /// application would not get this one as it was sent. Never over UDP, where the rule does not apply.
  bool breaksFraming = false;

  /// Whether it is data for the application: a push, or something that means to be one.
  bool isPush() const;
};

/// Cuts a service's byte stream into replies. Unlike the library it takes each body by its own length, and so
/// shows what was sent even when the framing rule is broken.
///
/// Any prefix of a reply is kept until more comes; memory grows with what has arrived, never with what a
/// header claims. After BROKEN nothing more can be read.
class ReplyStream {
 public:
  enum class Result { MORE_NEEDED, REPLY, BROKEN };

  void append(const char* bytes, size_t count) { m_bytes.append(bytes, count); }
  /// The next whole reply. With BROKEN, `problem` says what is wrong.
  Result next(Reply& reply, std::string& problem);
  /// Bytes of a reply that is not whole yet.
  size_t partial() const { return m_bytes.size() - m_start; }

 private:
  std::string m_bytes;
  size_t m_start = 0;  // the first byte not yet taken
  bool m_lastHadBody = false;
};

/// Reads a message that is one reply (a transport with message boundaries). Empty text, or what is wrong.
std::string readReplyMessage(std::string_view message, Reply& reply);

}  // namespace client
