#include "local/ReplyReader.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

#include "wire/ClientProtocal.h"

namespace {
constexpr size_t kHugePageBytes = size_t{2} << 20;  // the smallest huge page of our targets
}

bool LazyBytes::allocate(size_t length) {
  reset();
  m_length = length;
  if (length <= kSmallBytes) {
    m_data = static_cast<uint8_t*>(memset(m_small, 0, length));
    return true;
  }
  void* const memory =
      mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return false;
  // A huge page would become resident with its first byte.
  if (length >= kHugePageBytes) madvise(memory, length, MADV_NOHUGEPAGE);
  m_data = static_cast<uint8_t*>(memory);
  return true;
}

void LazyBytes::reset() {
  if (m_data != nullptr && m_data != m_small) munmap(m_data, m_length);
  m_data = nullptr;
  m_length = 0;
}

ReplyReader::Result ReplyReader::read(const uint8_t* data, size_t length, size_t* used) {
  if (m_headerCount < kHeaderBytes) {
    const size_t count = std::min<size_t>(length - *used, kHeaderBytes - m_headerCount);
    memcpy(m_headerBytes + m_headerCount, data + *used, count);
    m_headerCount += static_cast<uint32_t>(count);
    *used += count;
    if (m_headerCount < kHeaderBytes) return Result::NeedMore;
    m_header = readReplyHeader(m_headerBytes);
    if (m_header.magic != kHeaderMagic) return Result::BadMagic;
    if (m_header.dataLen < m_bodyCount) m_bodyCount = 0;
    m_lost = m_header.dataLen > 0 && !m_body.allocate(m_header.dataLen);
    if (m_lost) return Result::NoMemory;
  }
  const size_t count = std::min<size_t>(length - *used, m_header.dataLen - m_bodyCount);
  if (count > 0 && !m_lost && m_header.dataLen <= kMaxPushedBytes)
    memcpy(m_body.data() + m_bodyCount, data + *used, count);
  m_bodyCount += static_cast<uint32_t>(count);
  *used += count;
  if (m_bodyCount != m_header.dataLen) return Result::NeedMore;
  return m_lost ? Result::Lost : Result::Complete;
}

void ReplyReader::next() {
  m_body.reset();
  m_headerCount = 0;
}
