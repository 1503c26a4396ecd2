// Who asks, whichever transport the request came over.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "service/effects/Process.h"

namespace service {

/// All whose process is not known count as one user, which no real one is.
constexpr uint32_t kUnknownUser = UINT32_MAX;

struct Requester {
  uint64_t id = 0;   // never used twice while the service runs; a UDP address has its own for good
  std::string name;  // "pid=12 uid=0", or the address of a UDP client
  uint32_t user = kUnknownUser;            // the user id behind it
  std::shared_ptr<const Process> process;  // null over UDP: nothing says who sent a datagram

  bool isKnown() const { return process != nullptr; }
};

}  // namespace service
