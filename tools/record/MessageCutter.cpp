#include "tools/record/MessageCutter.h"

#include <algorithm>

#include "base/bytes.h"
#include "wire/header.h"

namespace record {

/// Takes bytes off the front and returns how many (at least one). `packet` is set when one is ready; it may
/// point into `bytes` or into what is held.
size_t MessageCutter::take(std::string_view bytes, std::string_view& packet) {
  size_t used = 0;
  if (m_left == 0) {
    uint8_t header[kHeaderBytes];
    const size_t held = m_held.copy(reinterpret_cast<char*>(header), sizeof(header));
    const size_t count = std::min(bytes.size(), sizeof(header) - held);
    bytes.copy(reinterpret_cast<char*>(header) + held, count);
    if (held + count >= sizeof(uint32_t) && read32le(header) != kHeaderMagic) {
      packet = bytes.substr(0, kPieceBytes - held);
      used = packet.size();
      if (held > 0) packet = m_held.append(packet);
      return used;
    }
    if (held + count < sizeof(header)) {
      m_held.append(bytes);
      return bytes.size();
    }
    const int lengthAt =
        m_direction == pcapng::Direction::ToService ? request_header::kDataLen : reply_header::kDataLen;
    m_left = uint64_t{kHeaderBytes} + read32le(header + lengthAt);
  }
  const size_t wanted = static_cast<size_t>(std::min<uint64_t>(m_left, kPieceBytes)) - m_held.size();
  used = std::min(wanted, bytes.size());
  packet = bytes.substr(0, used);
  if (!m_held.empty() || used < wanted) packet = m_held.append(packet);
  if (used < wanted) {
    packet = {};
  } else {
    m_left -= packet.size();
    if (m_left == 0) ++m_messages;
  }
  return used;
}

void MessageCutter::emitted() {
  constexpr size_t kWorthKeeping = 4096;
  if (m_held.capacity() > kWorthKeeping) {
    std::string().swap(m_held);
  } else {
    m_held.clear();
  }
}

}  // namespace record
