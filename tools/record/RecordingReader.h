// A recording, read message by message.
#pragma once

#include <fstream>
#include <map>
#include <string>

#include "tools/record/Pcapng.h"
#include "udp/udp_packet.h"

namespace record {

/// Something that passed: on a local socket a message, a piece of a long one, or bytes that are none; over
/// UDP a whole message.
struct Passed {
  size_t channel = 0;  // the connection, or the peer; counted from 0
  pcapng::Direction direction = pcapng::Direction::Unknown;
  int64_t timeNs = 0;
  std::string bytes;
};

class RecordingReader {
 public:
  /// False, with the problem named, when the file cannot be read.
  bool open(const std::string& path, std::string& problem);

  /// The next of them; packets that are not ours are passed over. False at the end, with `problem` set when
  /// that is not the end of a whole file.
  bool next(Passed& passed, std::string& problem);

 private:
  /// Messages in the making, of one channel and direction.
  struct Making {
    uint32_t lastSequence = 0;  // of the last piece that was taken
    int64_t session = 0;
    std::string bytes;
  };

  bool takeDatagram(std::string_view bytes, Passed& passed);

  std::ifstream m_file;
  pcapng::Reader m_reader{m_file};
  std::map<std::pair<size_t, pcapng::Direction>, Making> m_making;
};

}  // namespace record
