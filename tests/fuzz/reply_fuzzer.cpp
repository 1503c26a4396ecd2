// The service's byte stream into the engine, cut anywhere, against the framing rule spelt out byte by byte.
#include "base/bytes.h"
#include "fuzz/Fuzz.h"
#include "support/HandFedEngine.h"

namespace {

/// The rule. `m_have` is the count of body bytes that is kept from reply to reply.
struct Model {
  int read(const std::string& bytes) {
    for (const char byte : bytes) {
      if (m_header.size() < 32) {
        m_header += byte;
        if (m_header.size() < 32) continue;
        if (m_header.compare(0, 4, "RCDH") != 0) {
          ++m_bad;
          m_header.clear();
          return -1;  // and the rest of the read is dropped
        }
        if (length() < m_have) m_have = 0;
        m_body.clear();
        m_unfilled = m_have;
      } else {
        m_body += byte;
        ++m_have;
      }
      if (m_have != length()) continue;
      const auto* const at = reinterpret_cast<const uint8_t*>(m_header.data());
      m_delivered.emplace_back(read16le(at + 6), read64le(at + 16), read64le(at + 24), read32le(at + 8),
                               std::string(m_unfilled, '\0') + m_body);
      m_header.clear();
    }
    return 0;
  }
  uint32_t length() const { return read32le(reinterpret_cast<const uint8_t*>(m_header.data()) + 12); }

  std::string m_header, m_body;
  uint32_t m_have = 0, m_unfilled = 0;
  int m_bad = 0;
  std::vector<Delivery> m_delivered;
};

/// A stream of replies, of broken ones, and of anything.
std::string makeStream(FuzzedDataProvider& input) {
  std::string stream;
  for (int i = 0; i < 16 && input.remaining_bytes() > 0; ++i) {
    const auto kind = input.ConsumeIntegralInRange<int>(0, 7);
    if (kind == 0) {
      stream += input.ConsumeBytesAsString(input.ConsumeIntegralInRange<size_t>(0, 80));
      continue;
    }
    const auto body = input.ConsumeIntegralInRange<uint32_t>(0, kind < 6 ? 12 : 700);
    uint8_t header[32] = {'R', 'C', 'D', 'H'};
    write16le(header + 6, input.ConsumeIntegral<uint16_t>());
    write32le(header + 8, input.ConsumeIntegral<uint8_t>());
    write32le(header + 12, kind == 7 ? input.ConsumeIntegral<uint32_t>() : body);
    write64le(header + 16, kind);
    write64le(header + 24, input.ConsumeIntegral<uint8_t>() * 1000000);
    stream.append(reinterpret_cast<char*>(header), sizeof(header));
    stream.append(body, static_cast<char>('a' + i));
  }
  return stream;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  FuzzLog::reset();
  g_debug = input.ConsumeBool();
  RecordingOwner owner;
  HandFedEngine engine(&owner);
  Model model;
  const size_t longestRead = input.ConsumeBool() ? 4096 : 48;
  const std::string stream = makeStream(input);
  for (size_t at = 0; at < stream.size();) {
    const std::string read = stream.substr(at, input.ConsumeIntegralInRange<size_t>(1, longestRead));
    at += read.size();
    FUZZ_CHECK(engine.read(read) == model.read(read));
    FUZZ_CHECK(owner.m_got.size() == model.m_delivered.size() && FuzzLog::errors == model.m_bad);
  }
  FUZZ_CHECK(owner.m_got == model.m_delivered);
  return 0;
}
