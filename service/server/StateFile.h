// Who holds what, now: as a JSON file that is kept current, and as lines.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "service/clients/SocketPort.h"
#include "service/clients/UdpPort.h"
#include "service/core/Boosts.h"

namespace service {

/// Between two writings of the file, in milliseconds. One that takes long is written less often.
constexpr int64_t kStateEveryMs = 100;

/// All that there is to tell, as docs/operating.md describes it. udp may be null. now: of the boosts' clock
nlohmann::json stateOf(const Boosts& boosts, const SocketPort& sockets, const UdpPort* udp, int64_t now);

/// The same in lines.
std::vector<std::string> stateLines(const nlohmann::json& state);

class StateFile {
 public:
  /// path  empty: nothing is kept
  explicit StateFile(std::string path) : m_path(std::move(path)) {}

  /// When the file is to be written because `changes`, a count of what has changed, is not what it was;
  /// INT64_MAX when it is.
  int64_t dueAt(uint64_t changes) const;

  /// Writes the file anew and puts it into its place at once. False, with the problem named, when that fails.
  bool write(const nlohmann::json& state, uint64_t changes, std::string& problem);

  bool isWanted() const { return !m_path.empty(); }

 private:
  const std::string m_path;
  uint64_t m_changes = UINT64_MAX;  // when it was last written
  int64_t m_notBefore = 0;          // the next writing
};

}  // namespace service
