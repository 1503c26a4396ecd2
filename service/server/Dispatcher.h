// Carries requests out: the place where a service decides what each request means.
//
// Whoever builds a service of their own changes this unit and the settings it uses; sockets and framing
// (Server), decoding (Requests) and bookkeeping (Boosts) stay. It belongs to the server's thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "service/clients/Requester.h"
#include "service/core/Boosts.h"
#include "service/core/Outcome.h"
#include "service/wire/Requests.h"

namespace service {

/// What the service's operator chooses.
struct Policy {
  std::map<uint16_t, uint32_t> scriptedStatus;  // these identifiers are answered so, and nothing is done
  bool allowTerminate = false;
  std::string sysRoot = "/sys";
};

/// Over UDP nobody notices that a client has gone, so a boost needs an end of its own: at most this long.
constexpr int64_t kMaxUnknownBoostMs = 600'000;

/// Threads that one request may name.
constexpr int kMaxBindtids = 1024;

class Dispatcher {
 public:
  Dispatcher(Policy policy, const Log& log) : m_policy(std::move(policy)), m_boosts(log) {}

  /// Carries out one request, writes nothing. now: milliseconds of the clock of `boosts()`.
  Outcome handle(const Request& request, const Requester& requester, int64_t now);

  /// Undoes what the requester's boosts set. Its id may then be forgotten.
  void requesterGone(const Requester& requester);

  Boosts& boosts() { return m_boosts; }

 private:
  struct Handle;  // one overload per message

  const Policy m_policy;
  Boosts m_boosts;
};

}  // namespace service
