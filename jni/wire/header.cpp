#include "wire/header.h"

#include <cstring>
#include <new>

#include "base/bytes.h"
#include "base/clock.h"
#include "base/log.h"

int64_t genReqPack(uint32_t funcid, const uint8_t* data, int32_t dataLen, uint8_t** outBuf, uint32_t* outLen,
                   uint32_t callertid, int64_t timestamp) {
  LOG_DEBUG_AT(23, "getReqPack funcid:%d, dataLen:%d callertid:%d timestamp:%d", funcid, dataLen, callertid,
               static_cast<int>(timestamp / 1000000));
  if (static_cast<uint32_t>(dataLen) > kMaxBodyBytes || (dataLen >= 1 && data == nullptr)) {
    LOG_ERROR_AT(26, "getReqPack input data len %d data:%d", dataLen, addressBits(data));
    return -1;
  }
  if (funcid > kMaxFuncid) {
    LOG_ERROR_AT(31, "getReqPack funcid should little then 65535 %d ", funcid);
    return -2;
  }
  const uint32_t length = static_cast<uint32_t>(dataLen) + kHeaderBytes;
  auto* const packet = new (std::nothrow) uint8_t[length];
  if (packet == nullptr) {
    LOG_ERROR("getReqPack packet of %u bytes not allocated", length);
    return -1;
  }
  write32le(packet + request_header::kMagic, kHeaderMagic);
  write16le(packet + request_header::kVersion, kRequestVersion);
  write16le(packet + request_header::kFuncid, static_cast<uint16_t>(funcid));
  write32le(packet + request_header::kDataLen, static_cast<uint32_t>(dataLen));
  write32le(packet + request_header::kCallertid, callertid);
  write64le(packet + request_header::kTimestamp, static_cast<uint64_t>(timestamp));
  const int64_t sendTime = nowUs();
  write64le(packet + request_header::kSendTime, static_cast<uint64_t>(sendTime));
  if (dataLen != 0) memcpy(packet + kHeaderBytes, data, dataLen);
  *outBuf = packet;
  *outLen = length;
  return sendTime;
}

ReplyHeader readReplyHeader(const uint8_t* bytes) {
  ReplyHeader header{};
  header.magic = read32le(bytes + reply_header::kMagic);
  header.funcid = read16le(bytes + reply_header::kFuncid);
  header.status = read32le(bytes + reply_header::kStatus);
  header.dataLen = read32le(bytes + reply_header::kDataLen);
  header.word16 = read64le(bytes + reply_header::kWord16);
  header.timestamp = static_cast<int64_t>(read64le(bytes + reply_header::kTimestamp));
  return header;
}
