#include "service/wire/Replies.h"

#include <cstring>

#include "base/bytes.h"
#include "shared/Status.h"
#include "wire/Funcid.h"
#include "wire/header.h"

namespace service {
namespace {

constexpr int kVersionOffset = 4;  // no client reads it; the value keeps both directions alike in a dump

void appendHeader(std::string& bytes, uint16_t funcid, uint32_t status, size_t bodyLength, uint64_t word16,
                  int64_t timestamp) {
  uint8_t header[kHeaderBytes] = {};
  write32le(header + reply_header::kMagic, kHeaderMagic);
  write16le(header + kVersionOffset, kRequestVersion);
  write16le(header + reply_header::kFuncid, funcid);
  write32le(header + reply_header::kStatus, status);
  write32le(header + reply_header::kDataLen, static_cast<uint32_t>(bodyLength));
  write64le(header + reply_header::kWord16, word16);
  write64le(header + reply_header::kTimestamp, static_cast<uint64_t>(timestamp));
  bytes.append(reinterpret_cast<const char*>(header), sizeof(header));
}

void appendAnswer(std::string& bytes, const Request& request, uint32_t status) {
  appendHeader(bytes, request.funcid, status, 0, static_cast<uint64_t>(request.sendTime), request.timestamp);
}

}  // namespace

std::string packReply(uint16_t funcid, uint32_t status, uint64_t word16, int64_t timestamp,
                      const std::string& body) {
  std::string bytes;
  appendHeader(bytes, funcid, status, body.size(), word16, timestamp);
  return bytes + body;
}

std::string packAnswer(const Request& request, uint32_t status) {
  std::string bytes;
  appendAnswer(bytes, request, status);
  return bytes;
}

std::string packPush(const Push& push) {
  amc::DataCallback message;
  message.set_code(push.code);
  message.set_data(push.data);
  return packReply(FUNCID_REGISTER_ANR_CALLBACK, shared::Status::DONE, 0, 0, message.SerializeAsString());
}

void ReplyStream::answer(const Request& request, uint32_t status) {
  appendAnswer(m_bytes, request, status);
  m_lastHadBody = false;
}

void ReplyStream::push(const Push& push) {
  if (m_lastHadBody) m_bytes += packReply(FUNCID_REGISTER_ANR_CALLBACK, shared::Status::DONE, 0, 0, "");
  m_bytes += packPush(push);
  m_lastHadBody = true;
}

void ReplyStream::sent(size_t count) {
  m_sent += count;
  if (m_sent < m_bytes.size() - m_sent) return;  // copying down now would cost more than it frees
  m_bytes.erase(0, m_sent);
  m_sent = 0;
}

}  // namespace service
