#include "tools/check/FlawedServer.h"

#include <poll.h>

#include "base/bytes.h"
#include "wire/header.h"

namespace check {

void FlawedServer::startThread() {
  m_thread = std::thread([this] {
    while (!m_stop) {
      m_dead ? static_cast<void>(poll(nullptr, 0, kTurnMs)) : serve();
    }
  });
}

void FlawedServer::endThread() {
  m_stop = true;
  if (m_thread.joinable()) m_thread.join();
}

std::string replyPacket(uint16_t funcid, uint32_t status, uint64_t timestamp, const std::string& body) {
  uint8_t header[kHeaderBytes] = {};
  write32le(header + reply_header::kMagic, kHeaderMagic);
  write16le(header + reply_header::kFuncid, funcid);
  write32le(header + reply_header::kStatus, status);
  write32le(header + reply_header::kDataLen, static_cast<uint32_t>(body.size()));
  write64le(header + reply_header::kTimestamp, timestamp);
  return std::string(reinterpret_cast<const char*>(header), sizeof(header)) + body;
}

}  // namespace check
