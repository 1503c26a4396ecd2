#include "tools/record/RecordingReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "shared/Text.h"
#include "tools/record/ExportedPdu.h"

namespace record {

bool RecordingReader::open(const std::string& path, std::string& problem) {
  m_file.open(path, std::ios::binary);
  if (m_file) return true;
  problem = "cannot read " + path + ": " + shared::errorText(errno);
  return false;
}

bool RecordingReader::next(Passed& passed, std::string& problem) {
  pcapng::Packet packet;
  while (m_reader.next(packet, problem) == pcapng::Reader::Result::PACKET) {
    const pcapng::Interface& interface = m_reader.interfaces()[packet.interface];
    Tagged tagged;
    if (interface.linkType != pcapng::kLinkTypeExportedPdu || !packet.whole ||
        packet.direction == pcapng::Direction::Unknown || !readTags(packet.bytes, tagged)) {
      continue;
    }
    passed = {packet.interface, packet.direction, packet.timeNs, ""};
    if (tagged.dissector == kMessageDissector) {
      passed.bytes = tagged.bytes;
      return true;
    }
    if (tagged.dissector == kDatagramDissector && takeDatagram(tagged.bytes, passed)) return true;
  }
  return false;
}

/// Adds a datagram to its message. True when that is complete; then it is in `passed`.
bool RecordingReader::takeDatagram(std::string_view bytes, Passed& passed) {
  UdpPkg packet;
  if (bytes.size() < udp::kHeaderLength || bytes.size() > sizeof(packet)) return false;
  memcpy(&packet, bytes.data(), bytes.size());
  if (!isIntact(packet, static_cast<int64_t>(bytes.size())) || packet.type != PACKET_DATA) return false;
  Making& making = m_making[{passed.channel, passed.direction}];
  const bool again = packet.sequence == making.lastSequence && packet.sessionId == making.session;
  if (packet.offset == 0 && !again) making = {0, packet.sessionId, ""};
  if (again || packet.sessionId != making.session || packet.offset != making.bytes.size()) return false;
  making.lastSequence = packet.sequence;
  making.bytes.append(reinterpret_cast<const char*>(packet.payload), packet.dataLength);
  if (making.bytes.size() < packet.totalLength) return false;
  passed.bytes.swap(making.bytes);
  making.bytes.assign(1, '\0');  // nothing more fits
  return true;
}

}  // namespace record
