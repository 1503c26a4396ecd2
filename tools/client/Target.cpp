#include "tools/client/Target.h"

#include <fmt/format.h>

#include "shared/AbstractSocket.h"
#include "shared/Address.h"
#include "shared/Text.h"
#include "udp/udp_packet.h"

namespace client {

std::string Target::text() const {
  return isUdp() ? "udp " + addressText(udp) : "@" + shared::printable(name);
}

std::string parseName(const std::string& text, Target& target) {
  target.name = shared::bareName(text);
  if (target.name.empty()) return "the name is empty: say which service, as in --socket tarnbooster";
  if (target.name.size() <= shared::kMaxNameBytes) return "";
  return fmt::format("the name has {} bytes, at most {} fit", target.name.size(), shared::kMaxNameBytes);
}

std::string parseUdp(const std::string& text, Target& target) {
  target.name.clear();
  if (shared::parseAddress(text, target.udp) && target.udp.sin_port != 0) return "";
  return fmt::format("\"{}\" is no IPv4 address and port, as in 127.0.0.1:4711", shared::printable(text));
}

}  // namespace client
