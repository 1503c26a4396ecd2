// Replies and pushes: their bytes (the reply header is drawn in jni/wire/header.h), and their order on a
// stream.
#pragma once

#include <cstdint>
#include <string>

#include "service/wire/Requests.h"

namespace service {

/// One reply as bytes.
///
/// funcid     the request's identifier, or 1010 for a push
/// status     a Status
/// word16     64 bits that the library hands on unread; this service gives the request's send time back
///            (microseconds), so that whoever looks at the wire can tell the round trip
/// timestamp  the request's time stamp in nanoseconds, or 0 for a push
/// body       the payload; empty for everything but a push
std::string packReply(uint16_t funcid, uint32_t status, uint64_t word16, int64_t timestamp,
                      const std::string& body);

/// The reply to a request, without a body.
std::string packAnswer(const Request& request, uint32_t status);

/// Data for the application behind a peer.
struct Push {
  int32_t code = 0;
  std::string data;
};

/// A push as bytes: a DataCallback under 1010.
std::string packPush(const Push& push);

/// The bytes that wait to be sent to one stream client.
///
/// The client keeps the body length of its last reply and counts a following body from there. Only a reply
/// without a body takes the count back to 0, so two replies with bodies never follow each other directly on a
/// stream: push() puts an empty 1010 reply between them.
class ReplyStream {
 public:
  void answer(const Request& request, uint32_t status);
  void push(const Push& push);
  /// Any bytes, as they are: not necessarily a reply.
  void put(const std::string& bytes) { m_bytes += bytes; }

  /// What waits to be sent, oldest first.
  const char* data() const { return m_bytes.data() + m_sent; }
  size_t size() const { return m_bytes.size() - m_sent; }
  /// `count` bytes of it were sent.
  void sent(size_t count);

 private:
  std::string m_bytes;
  size_t m_sent = 0;
  bool m_lastHadBody = false;
};

}  // namespace service
