// The datagrams of the reliable UDP transport: layout, types, limits, checksum and text.
//
//   offset width field         key  meaning
//   0      u8    version       v    1 on send, not checked on receive
//   1      u8    type          t    a PacketType
//   2      u16   dataLength    dl   payload bytes that follow the header, 0 to 1000; 0 in SYN, ACK and FIN
//   4      u32   checksum      c    CRC-32 of header and payload, computed with this field 0
//   8      u32   totalLength   tl   bytes of the whole message that this piece belongs to
//   12     u32   offset        of   where in the message the payload starts; in an ACK, where it ended
//   16     u32   sequence      s    numbers the DATA packets of one sender; in an ACK, what it acknowledges
//   20     i64   sessionId     sid  the same in all pieces of one message
//   28     0 to 1000 bytes     payload
//
// A datagram is dataLength + 28 bytes. All integers are little-endian, the byte order of every target: the
// record below is sent as it lies in memory, with no padding and no conversion.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// ---- The protocol's numbers ----
namespace udp {
constexpr uint32_t kHeaderLength = 28;                          // bytes in front of the payload
constexpr uint32_t kMaxPayload = 1000;                          // bytes of a message in one datagram
constexpr uint32_t kMaxDatagram = kHeaderLength + kMaxPayload;  // bytes
constexpr uint8_t kVersion = 1;
constexpr uint32_t kFirstSequence = 100000;  // the SYN's; the first DATA packet has the next
constexpr int kWindowSlots = 5;              // unacknowledged DATA packets per sender
constexpr uint32_t kSequenceSpan = 4;        // how far the newest may be ahead of the oldest of them
constexpr uint32_t kReacknowledged = 5;      // sequence numbers back from the expected one acknowledged again
constexpr int kRetransmitMs = 500;           // milliseconds from a send to the next send of the same packet
constexpr int kMaxRetransmissions = 5;       // after the first send: six sends in all
constexpr unsigned kSendQueueMessages = 10;  // messages that may wait for the transport thread
constexpr size_t kMaxReceivers = 65536;      // peers, unless told otherwise; beyond, one is forgotten
constexpr size_t kMaxPartialMessages = 16;   // per peer; a well-formed sender never has more than one
constexpr size_t kReceiveBudget =
    64 << 20;  // bytes of unfinished messages in a transport, unless told otherwise
constexpr size_t kPartialMessageCost = 128;  // bytes that an unfinished message counts beside its buffer
constexpr int kPartialMessageMs = 60000;     // milliseconds without a piece, then it is dropped
constexpr size_t kSparePackets = 16;         // kept by a transport for its next DATA
}  // namespace udp

/// A datagram's type, as sent. 3 is unused; every number that is not listed is PACKET_OTHER.
enum PacketType : uint8_t {
  PACKET_OTHER = 0,  // never sent
  PACKET_DATA = 1,   // one piece of a message
  PACKET_ACK = 2,    // answers DATA, SYN or FIN: their own header with the type (and dl and of) changed
  PACKET_SYN = 4,    // opens a direction
  PACKET_FIN = 5,    // closes it
};

/// One datagram. Allocated whole, whatever its payload; see newPacket().
struct UdpPkg {
  uint8_t version;
  uint8_t type;
  uint16_t dataLength;
  uint32_t checksum;
  uint32_t totalLength;
  uint32_t offset;
  uint32_t sequence;
  int64_t sessionId;
  uint8_t payload[udp::kMaxPayload];

  /// Bytes on the wire.
  uint32_t wireLength() const { return dataLength + udp::kHeaderLength; }
} __attribute__((packed));

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "datagrams are sent as they lie in memory");
static_assert(sizeof(UdpPkg) == udp::kMaxDatagram && alignof(UdpPkg) == 1, "a datagram has no padding");
static_assert(offsetof(UdpPkg, type) == 1 && offsetof(UdpPkg, dataLength) == 2, "layout");
static_assert(offsetof(UdpPkg, checksum) == 4 && offsetof(UdpPkg, totalLength) == 8, "layout");
static_assert(offsetof(UdpPkg, offset) == 12 && offsetof(UdpPkg, sequence) == 16, "layout");
static_assert(offsetof(UdpPkg, sessionId) == 20, "layout");
static_assert(offsetof(UdpPkg, payload) == udp::kHeaderLength, "layout");

/// The type that a datagram's type byte stands for.
PacketType packetType(uint8_t number);

/// "DATA", "ACK", "SYN", "FIN", or "ERR_TYPE" for any other number.
const char* packetTypeName(uint8_t number);

/// A packet with a zeroed header; its payload bytes are not initialised.
std::unique_ptr<UdpPkg> newPacket();

/// Packets that have been acknowledged, kept for the next ones: sending takes no memory from the heap once a
/// few are there.
class PacketPool {
 public:
  PacketPool() { m_spare.reserve(udp::kSparePackets); }
  /// As newPacket().
  std::unique_ptr<UdpPkg> take();
  void giveBack(std::unique_ptr<UdpPkg> packet);

 private:
  std::vector<std::unique_ptr<UdpPkg>> m_spare;
};

/// Zeroes the header.
void clearHeader(UdpPkg& packet);

/// Makes the packet ready to be sent: sequence, type, version, and the checksum over all of it.
void sealPacket(UdpPkg& packet, PacketType type, uint32_t sequence);

/// Whether `received` bytes (a receive call's result) hold an intact datagram: header and stated payload have
/// arrived, the payload is at most 1000 bytes, and the checksum is right. Bytes beyond are ignored. Of an
/// intact datagram the checksum field is then 0, as it was for the computation; any other is left as it is.
bool isIntact(UdpPkg& packet, int64_t received);

/// The key of a peer in the tables of senders and receivers: port << 32 | address, both in network order.
uint64_t peerKey(const sockaddr_in& peer);

/// Hashes such keys. Each object spreads them in a way of its own, by the time and its place in memory:
/// whoever chooses addresses and ports from afar cannot choose that they meet.
class PeerHash {
 public:
  PeerHash();
  size_t operator()(uint64_t key) const;

 private:
  uint64_t m_seed;
};

/// "127.0.0.1:4000".
std::string addressText(const sockaddr_in& address);

/// "P[%x v:%d t:%d,%s l:%d dl:%d c:0x%x tl:%d of:%d s:%d sid:%d]": the low 32 bits of the packet's address in
/// memory, version, type and its name, wire length, dl, checksum, tl, of, s and the low 32 bits of sid.
std::string packetText(const UdpPkg& packet);
