#include "tools/record/Pcapng.h"

#include <algorithm>
#include <cmath>

#include "base/bytes.h"

namespace pcapng {
namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A, kInterfaceDescription = 1, kEnhancedPacket = 6;
constexpr uint32_t kByteOrder = 0x1A2B3C4D;
constexpr uint16_t kOptEnd = 0, kIfName = 2, kIfDescription = 3, kIfTsresol = 9, kShbUserappl = 4,
                   kEpbFlags = 2;
constexpr uint8_t kNanoseconds = 9, kMicroseconds = 6;  // if_tsresol: negative powers of ten
constexpr uint32_t kBlockFrame = 12;                    // type and both lengths
constexpr uint32_t kPacketHead = 20;                    // interface, time (two halves), both lengths
constexpr uint32_t kMaxBlock = 16 * 1024 * 1024;        // of a block that is read at all
constexpr size_t kMaxInterfaces = 1 << 20;

size_t padding(size_t length) {
  return (4 - length % 4) % 4;
}

void append16(std::string& out, uint16_t value) {
  uint8_t bytes[2];
  write16le(bytes, value);
  out.append(reinterpret_cast<char*>(bytes), sizeof(bytes));
}

void append32(std::string& out, uint32_t value) {
  uint8_t bytes[4];
  write32le(bytes, value);
  out.append(reinterpret_cast<char*>(bytes), sizeof(bytes));
}

void appendOption(std::string& out, uint16_t code, std::string_view value) {
  value = value.substr(0, UINT16_MAX);
  append16(out, code);
  append16(out, static_cast<uint16_t>(value.size()));
  out.append(value).append(padding(value.size()), '\0');
}

/// Starts a block; finish() sets its length at both ends.
size_t start(std::string& out, uint32_t type) {
  const size_t at = out.size();
  append32(out, type);
  append32(out, 0);
  return at;
}

void finish(std::string& out, size_t at) {
  const auto length = static_cast<uint32_t>(out.size() - at + sizeof(uint32_t));
  write32le(reinterpret_cast<uint8_t*>(&out[at + sizeof(uint32_t)]), length);
  append32(out, length);
}

/// A time stamp in units of an if_tsresol as nanoseconds; 0 when it fits no such number.
int64_t toNanoseconds(uint64_t units, uint8_t resolution) {
  const bool binary = (resolution & 0x80) != 0;
  const double perSecond = std::pow(binary ? 2.0 : 10.0, resolution & 0x7f);
  const double seconds = static_cast<double>(units) / perSecond;
  if (!(seconds < 9e9)) return 0;
  if (!binary && resolution <= kNanoseconds) {  // exactly
    return static_cast<int64_t>(units * static_cast<uint64_t>(std::llround(1e9 / perSecond)));
  }
  return static_cast<int64_t>(seconds * 1e9);
}

}  // namespace

void appendSectionHeader(std::string& out) {
  const size_t at = start(out, kSectionHeader);
  append32(out, kByteOrder);
  append32(out, 1);           // version 1.0
  append32(out, UINT32_MAX);  // length of the section: not known
  append32(out, UINT32_MAX);
  appendOption(out, kShbUserappl, "tarnbooster record");
  append32(out, kOptEnd);
  finish(out, at);
}

void appendInterface(std::string& out, const Interface& interface) {
  const size_t at = start(out, kInterfaceDescription);
  append32(out, interface.linkType);
  append32(out, kMaxPacket);
  appendOption(out, kIfName, interface.name);
  appendOption(out, kIfDescription, interface.description);
  appendOption(out, kIfTsresol, std::string_view(reinterpret_cast<const char*>(&kNanoseconds), 1));
  append32(out, kOptEnd);
  finish(out, at);
}

void appendPacket(std::string& out, size_t interface, int64_t timeNs, Direction direction,
                  std::string_view prefix, std::string_view bytes) {
  const auto length = static_cast<uint32_t>(prefix.size() + bytes.size());
  const size_t at = start(out, kEnhancedPacket);
  append32(out, static_cast<uint32_t>(interface));
  append32(out, static_cast<uint32_t>(static_cast<uint64_t>(timeNs) >> 32));
  append32(out, static_cast<uint32_t>(timeNs));
  append32(out, length);
  append32(out, length);
  out.append(prefix).append(bytes).append(padding(length), '\0');
  append16(out, kEpbFlags);
  append16(out, sizeof(uint32_t));
  append32(out, static_cast<uint32_t>(direction));
  append32(out, kOptEnd);
  finish(out, at);
}

uint16_t Reader::number16(size_t at) const {
  const uint16_t value = read16le(reinterpret_cast<const uint8_t*>(m_body.data()) + at);
  return m_swapped ? __builtin_bswap16(value) : value;
}

uint32_t Reader::number32(size_t at) const {
  const uint32_t value = read32le(reinterpret_cast<const uint8_t*>(m_body.data()) + at);
  return m_swapped ? __builtin_bswap32(value) : value;
}

/// Calls visit(code, offset of the value, its length) for each option from `at` on.
template <class Visit>
void Reader::eachOption(size_t at, Visit visit) const {
  while (m_body.size() >= at + 4) {
    const uint16_t code = number16(at), length = number16(at + 2);
    at += 4;
    if (code == kOptEnd || m_body.size() - at < length) return;
    visit(code, at, length);
    at += length + padding(length);
  }
}

Reader::Result Reader::next(Packet& packet, std::string& problem) {
  problem.clear();
  for (uint32_t type = 0; readBlock(type, problem);) {
    bool good = true;
    if (type == kSectionHeader) good = readSectionHeader(problem);
    if (type == kInterfaceDescription) good = readInterface(problem);
    if (type == kEnhancedPacket && readPacket(packet, problem)) return Result::PACKET;
    if (!good || !problem.empty()) return Result::BAD;
  }
  return problem.empty() ? Result::END : Result::BAD;
}

/// Reads the next block into m_body. False at the end of the file, and (with the problem named) for a bad
/// one.
bool Reader::readBlock(uint32_t& type, std::string& problem) {
  m_body.resize(8);
  m_in.read(m_body.data(), 8);
  const auto got = m_in.gcount();
  if (got == 0 && m_started) return false;
  const uint32_t rawType = got == 8 ? number32(0) : 0;
  if (!m_started && rawType != kSectionHeader) {
    problem = "this is no pcapng file";
    return false;
  }
  if (got < 8) {
    problem = "the file is cut off within a block";
    return false;
  }
  std::string order;
  if (rawType == kSectionHeader) {  // reads the same in both orders; only now its order is told
    order.resize(4);
    if (!m_in.read(order.data(), 4)) {
      problem = "the file is cut off within a block";
      return false;
    }
    const uint32_t magic = read32le(reinterpret_cast<const uint8_t*>(order.data()));
    m_swapped = magic == __builtin_bswap32(kByteOrder);
    if (!m_swapped && magic != kByteOrder) {
      problem = "a section header of no known byte order";
      return false;
    }
  }
  type = rawType;
  const uint32_t length = number32(4);
  if (length < kBlockFrame + order.size() || length % 4 != 0 || length > kMaxBlock) {
    problem = "a block of " + std::to_string(length) + " bytes";
    return false;
  }
  const size_t rest = length - kBlockFrame - order.size();
  m_body.assign(order).resize(order.size() + rest + 4);
  if (!m_in.read(m_body.data() + order.size(), static_cast<std::streamsize>(rest + 4))) {
    problem = "the file is cut off within a block";
    return false;
  }
  if (number32(m_body.size() - 4) != length) {
    problem = "a block whose two lengths differ";
    return false;
  }
  m_body.resize(m_body.size() - 4);
  return true;
}

bool Reader::readSectionHeader(std::string& problem) {
  m_started = true;
  m_sectionStart = m_interfaces.size();
  if (m_body.size() >= 16 && number16(4) == 1) return true;
  problem = "a section header of an unknown version";
  return false;
}

bool Reader::readInterface(std::string& problem) {
  if (m_body.size() < 8 || m_interfaces.size() >= kMaxInterfaces) {
    problem = m_body.size() < 8 ? "an interface description that is too short" : "too many interfaces";
    return false;
  }
  Interface interface;
  interface.linkType = number16(0);
  uint8_t resolution = kMicroseconds;
  eachOption(8, [&](uint16_t code, size_t at, size_t length) {
    if (code == kIfName) interface.name = m_body.substr(at, length);
    if (code == kIfDescription) interface.description = m_body.substr(at, length);
    if (code == kIfTsresol && length == 1) resolution = static_cast<uint8_t>(m_body[at]);
  });
  m_interfaces.push_back(interface);
  m_resolutions.push_back(resolution);
  return true;
}

bool Reader::readPacket(Packet& packet, std::string& problem) {
  const bool headed = m_body.size() >= kPacketHead;
  const size_t interface = headed ? m_sectionStart + number32(0) : SIZE_MAX;
  const uint32_t captured = headed ? number32(12) : 0;
  if (!headed || interface >= m_interfaces.size() || captured > m_body.size() - kPacketHead) {
    problem = "a packet block that contradicts itself";
    return false;
  }
  packet.interface = interface;
  packet.timeNs = toNanoseconds(uint64_t{number32(4)} << 32 | number32(8), m_resolutions[interface]);
  packet.bytes = m_body.substr(kPacketHead, captured);
  packet.whole = number32(16) <= captured;
  packet.direction = Direction::Unknown;
  eachOption(kPacketHead + captured + padding(captured), [&](uint16_t code, size_t at, size_t length) {
    if (code == kEpbFlags && length == 4) packet.direction = static_cast<Direction>(number32(at) & 3);
  });
  return true;
}

}  // namespace pcapng
