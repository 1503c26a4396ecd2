// The pcapng file format, as much of it as recordings need: written block by block, read back tolerantly.
//
//   file   = section header, then interface descriptions and packets, in any mixture
//   block  = type u32, length u32 (of the whole block, a multiple of 4), body, length u32 once more
//   option = code u16, length u16, value, padding to 4; code 0 ends the options
//
// What is written is little-endian, with time stamps in nanoseconds. What is read may be of either byte order
// and any time resolution; blocks of other kinds are passed over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace pcapng {

/// "Exported PDU": tags that name the dissector and the addresses, then the bytes (ExportedPdu.h).
constexpr uint16_t kLinkTypeExportedPdu = 252;
/// The longest packet that readers of the format accept, in bytes.
constexpr uint32_t kMaxPacket = 262144;

/// Which way a packet went, as seen by the application; the numbers are the format's own.
enum class Direction : uint8_t { Unknown = 0, FromService = 1, ToService = 2 };

/// Where packets came from: here a connection, or a peer.
struct Interface {
  uint16_t linkType = kLinkTypeExportedPdu;
  std::string name;
  std::string description;
};

struct Packet {
  size_t interface = 0;  // index into Reader::interfaces()
  int64_t timeNs = 0;    // nanoseconds since the epoch
  Direction direction = Direction::Unknown;
  std::string bytes;
  bool whole = true;  // false: what passed was longer than what was written down
};

/// Appends the block that a file starts with.
void appendSectionHeader(std::string& out);
/// Appends an interface. They are numbered from 0 in the order in which they are written.
void appendInterface(std::string& out, const Interface& interface);
/// Appends a packet whose bytes are `prefix` and, behind it, `bytes`; together at most kMaxPacket.
void appendPacket(std::string& out, size_t interface, int64_t timeNs, Direction direction,
                  std::string_view prefix, std::string_view bytes);

/// Reads packets in the order of the file. Nothing that a file claims is allocated before it is checked.
class Reader {
 public:
  enum class Result { PACKET, END, BAD };

  /// in  must live as long as the reader
  explicit Reader(std::istream& in) : m_in(in) {}

  /// The next packet. After END and BAD there is none; with BAD, `problem` says why, and what was read so far
  /// holds.
  Result next(Packet& packet, std::string& problem);

  /// All interfaces seen so far, of all sections.
  const std::vector<Interface>& interfaces() const { return m_interfaces; }

 private:
  bool readBlock(uint32_t& type, std::string& problem);
  bool readSectionHeader(std::string& problem);
  bool readInterface(std::string& problem);
  bool readPacket(Packet& packet, std::string& problem);
  uint16_t number16(size_t at) const;
  uint32_t number32(size_t at) const;
  template <class Visit>
  void eachOption(size_t at, Visit visit) const;

  std::istream& m_in;
  bool m_started = false;  // a section header was read
  bool m_swapped = false;  // the section is in the other byte order
  std::string m_body;      // of the block at hand
  std::vector<Interface> m_interfaces;
  std::vector<uint8_t> m_resolutions;  // if_tsresol of each
  size_t m_sectionStart = 0;           // index of the section's interface 0
};

}  // namespace pcapng
