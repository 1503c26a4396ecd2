#include "tools/client/Packet.h"

#include <fmt/format.h>

#include <memory>

#include "shared/Text.h"
#include "wire/Funcid.h"

namespace client {
namespace {

const uint8_t* bytesOf(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

std::string checkHeader(std::string_view bytes, const ReplyHeader& header) {
  if (header.magic != kHeaderMagic) {
    return fmt::format("a reply starts with \"{}\" instead of \"RCDH\"",
                       shared::printable(bytes.substr(0, 4)));
  }
  if (header.dataLen <= kMaxReplyBody) return "";
  return fmt::format("a reply {} claims a body of {} bytes", header.funcid, header.dataLen);
}

}  // namespace

std::string packRequest(uint16_t funcid, std::string_view body, uint32_t callertid, int64_t timestamp) {
  uint8_t* bytes = nullptr;
  uint32_t length = 0;
  if (genReqPack(funcid, bytesOf(body), static_cast<int32_t>(body.size()), &bytes, &length, callertid,
                 timestamp) < 1) {
    return "";
  }
  const std::unique_ptr<uint8_t[]> owner(bytes);
  return std::string(reinterpret_cast<const char*>(bytes), length);
}

bool Reply::isPush() const {
  return header.funcid == FUNCID_REGISTER_ANR_CALLBACK && header.status == 0 && !body.empty();
}

ReplyStream::Result ReplyStream::next(Reply& reply, std::string& problem) {
  const std::string_view rest = std::string_view(m_bytes).substr(m_start);
  if (rest.size() < kHeaderBytes) return Result::MORE_NEEDED;
  reply.header = readReplyHeader(bytesOf(rest));
  problem = checkHeader(rest, reply.header);
  if (!problem.empty()) return Result::BROKEN;
  const size_t length = size_t{kHeaderBytes} + reply.header.dataLen;
  if (rest.size() < length) return Result::MORE_NEEDED;
  reply.body = rest.substr(kHeaderBytes, reply.header.dataLen);
  reply.breaksFraming = m_lastHadBody && !reply.body.empty();
  m_lastHadBody = !reply.body.empty();
  m_start += length;
  if (m_start == m_bytes.size() || m_start >= m_bytes.size() / 2) {
    m_bytes.erase(0, m_start);
    m_start = 0;
  }
  return Result::REPLY;
}

std::string readReplyMessage(std::string_view message, Reply& reply) {
  if (message.size() < kHeaderBytes) return fmt::format("a message of {} bytes is no reply", message.size());
  reply.header = readReplyHeader(bytesOf(message));
  std::string problem = checkHeader(message, reply.header);
  if (!problem.empty()) return problem;
  reply.body = message.substr(kHeaderBytes);
  reply.breaksFraming = false;
  if (reply.body.size() == reply.header.dataLen) return "";
  return fmt::format("a reply {} claims a body of {} bytes, {} follow", reply.header.funcid,
                     reply.header.dataLen, reply.body.size());
}

}  // namespace client
