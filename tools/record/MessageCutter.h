// Cuts one direction of a connection into what becomes packets of a recording: a packet per message, whatever
// the reads were.
//
// What each prefix of the stream leads to:
//
//   fewer than 32 bytes        held back until the rest of the header arrives
//   32 bytes, the magic wrong  written as they came, with all else of the same read; the next read starts
//   anew 32 bytes, part of a body   held back until the rest arrives, up to kPieceBytes; a longer message
//   goes out
//                              in consecutive pieces of that size, which readers put together again
//   32 bytes and the body      one packet
//   the end of the stream      what was held back, as it is
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/record/Pcapng.h"

namespace record {

/// Fits a packet together with its tags.
constexpr size_t kPieceBytes = pcapng::kMaxPacket - 1024;

class MessageCutter {
 public:
  /// direction  ToService for requests, FromService for replies: their headers have the length in two places
  explicit MessageCutter(pcapng::Direction direction) : m_direction(direction) {}

  /// Takes what one read has brought, and calls emit(std::string_view packet) for each packet that is ready.
  template <class Emit>
  void add(std::string_view bytes, Emit emit) {
    while (!bytes.empty()) {
      std::string_view packet;
      const size_t used = take(bytes, packet);
      bytes.remove_prefix(used);
      if (packet.empty()) continue;
      emit(packet);
      emitted();
    }
  }

  /// The stream has ended.
  template <class Emit>
  void end(Emit emit) {
    if (!m_held.empty()) emit(std::string_view(m_held));
    m_held.clear();
    m_left = 0;
  }

  /// Messages that were seen whole, pieces not counted.
  uint64_t messages() const { return m_messages; }

 private:
  size_t take(std::string_view bytes, std::string_view& packet);
  void emitted();

  const pcapng::Direction m_direction;
  std::string m_held;   // what was held back
  uint64_t m_left = 0;  // bytes of the message at hand that are in no packet yet; 0: its header is not known
  uint64_t m_messages = 0;
};

}  // namespace record
