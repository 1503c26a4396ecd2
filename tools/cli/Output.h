// What the tool says on standard output: a line per event, for people or as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/client/Packet.h"

namespace cli {

/// Writes whole text to standard output at once. False when it could not be written; the reason has then been
/// said on standard error, once.
bool writeOut(const std::string& text);

/// Text as a JSON string, quotes included; bytes that are no UTF-8 are replaced.
std::string jsonString(const std::string& text);

/// The times of many answers.
struct Summary {
  uint64_t sent = 0, refused = 0, lost = 0;
  std::vector<int64_t> tookUs;  // one per answer, in microseconds
};

class Output {
 public:
  explicit Output(bool json) : m_json(json) {}

  void sent(uint16_t funcid, size_t bodyBytes, int64_t timestamp);
  /// tookUs  since the request was sent, in microseconds; -1 when that is not known
  void reply(const client::Reply& reply, int64_t tookUs);
  void push(const client::Reply& push);
  void summary(Summary summary);

  /// Whether everything so far could be written.
  bool isGood() const { return m_good; }

 private:
  void line(const std::string& text);

  const bool m_json;
  bool m_good = true;
};

}  // namespace cli
