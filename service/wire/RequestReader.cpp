#include "service/wire/RequestReader.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "base/bytes.h"
#include "wire/header.h"

namespace service {
namespace {

uint32_t bodyLength(const uint8_t* header) {
  return read32le(header + request_header::kDataLen);
}

bool isRequestHeader(const uint8_t* header) {
  return read32le(header + request_header::kMagic) == kHeaderMagic &&
         read16le(header + request_header::kVersion) == kRequestVersion &&
         bodyLength(header) <= kMaxRequestBody;
}

void readPacket(const uint8_t* bytes, RequestPacket& packet) {
  packet.funcid = read16le(bytes + request_header::kFuncid);
  packet.callertid = read32le(bytes + request_header::kCallertid);
  packet.sendTime = static_cast<int64_t>(read64le(bytes + request_header::kSendTime));
  packet.timestamp = static_cast<int64_t>(read64le(bytes + request_header::kTimestamp));
  const uint8_t* const body = bytes + kHeaderBytes;
  packet.body.assign(body, body + bodyLength(bytes));
}

}  // namespace

std::string checkRequestHeader(const uint8_t* header) {
  if (isRequestHeader(header)) return "";
  char text[96];
  const uint32_t magic = read32le(header + request_header::kMagic);
  const uint16_t version = read16le(header + request_header::kVersion);
  if (magic != kHeaderMagic) {
    snprintf(text, sizeof(text), "no request header: magic 0x%08" PRIx32 " instead of 0x%08" PRIx32, magic,
             kHeaderMagic);
  } else if (version != kRequestVersion) {
    snprintf(text, sizeof(text), "header version %u instead of %u", version, kRequestVersion);
  } else {
    snprintf(text, sizeof(text), "a body of %" PRIu32 " bytes is announced, at most %" PRIu32 " are accepted",
             bodyLength(header), kMaxRequestBody);
  }
  return text;
}

void RequestReader::append(const uint8_t* bytes, size_t count) {
  // What was taken makes room first, but only when that copies less than it frees.
  if (m_start > 0 && m_start >= m_bytes.size() - m_start) {
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_start));
    m_start = 0;
  }
  // By doubling, as far as the packet goes: a long one would end up with memory for two.
  const size_t needed = m_bytes.size() + count;
  if (needed > m_bytes.capacity()) m_bytes.reserve(std::max(needed, std::min(2 * needed, packetEnd())));
  m_bytes.insert(m_bytes.end(), bytes, bytes + count);
}

/// Where the packet in the making ends in m_bytes, as far as that is known.
size_t RequestReader::packetEnd() const {
  if (m_bytes.size() - m_start < kHeaderBytes) return SIZE_MAX;
  const uint8_t* const header = m_bytes.data() + m_start;
  return isRequestHeader(header) ? m_start + kHeaderBytes + bodyLength(header) : SIZE_MAX;
}

bool RequestReader::hasNext() const {
  const size_t available = m_bytes.size() - m_start;
  if (available < kHeaderBytes) return false;
  const uint8_t* const header = m_bytes.data() + m_start;
  return !isRequestHeader(header) || available - kHeaderBytes >= bodyLength(header);
}

RequestReader::Result RequestReader::next(RequestPacket& packet, std::string& problem) {
  if (!hasNext()) return Result::MORE_NEEDED;
  const uint8_t* const header = m_bytes.data() + m_start;
  if (!isRequestHeader(header)) {
    problem = checkRequestHeader(header);
    return Result::BAD;
  }
  readPacket(header, packet);
  m_start += kHeaderBytes + bodyLength(header);
  constexpr size_t kKept = size_t{64} * 1024;  // one huge request must not hold its memory for good
  if (m_start == m_bytes.size() && m_bytes.capacity() > kKept) {
    m_bytes = {};
    m_start = 0;
  }
  return Result::PACKET;
}

bool readRequestMessage(const uint8_t* bytes, size_t count, RequestPacket& packet, std::string& problem) {
  if (count < kHeaderBytes) {
    problem = "a message of " + std::to_string(count) + " bytes holds no request header";
    return false;
  }
  problem = checkRequestHeader(bytes);
  if (problem.empty() && bodyLength(bytes) != count - kHeaderBytes) {
    problem = "the header announces " + std::to_string(bodyLength(bytes)) + " body bytes, " +
              std::to_string(count - kHeaderBytes) + " follow";
  }
  if (!problem.empty()) return false;
  readPacket(bytes, packet);
  return true;
}

}  // namespace service
