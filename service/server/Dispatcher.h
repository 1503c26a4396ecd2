// Carries requests out: the place where a service decides what each request means.
//
// Whoever builds a service of their own changes this unit and the settings it uses; sockets and framing
// (Server), decoding (Requests) and bookkeeping (Boosts) stay. It belongs to the server's thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "service/clients/Requester.h"
#include "service/core/Boosts.h"
#include "service/core/Outcome.h"
#include "service/effects/Preload.h"
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
  /// The log and the record (null: none is kept) must outlive the object.
  Dispatcher(Policy policy, const Log& log, const BoostLimits& limits = {}, Record* record = nullptr)
      : m_policy(std::move(policy)), m_boosts(log, limits, record) {}

  /// Carries out one request, writes nothing. Nothing comes back when it takes its time: then the outcome
  /// comes through `preloads()`, with this ticket.
  /// now  milliseconds of the clock of `boosts()`
  std::optional<Outcome> handle(const Request& request, const Requester& requester, uint64_t ticket,
                                int64_t now);

  /// Whether the request is answered as the policy's script says, with nothing done.
  bool isScripted(uint16_t funcid) const { return m_policy.scriptedStatus.count(funcid) != 0; }

  /// Puts back what a service that was killed has left, as its record says.
  void putBack(Record& record, int64_t now);

  /// Undoes what the requester's boosts set. Its id may then be forgotten.
  void requesterGone(const Requester& requester, const std::string& why, int64_t now);

  Boosts& boosts() { return m_boosts; }
  Preloads& preloads() { return m_preloads; }

 private:
  struct Handle;  // one overload per message

  const Policy m_policy;
  Boosts m_boosts;
  Preloads m_preloads;
};

}  // namespace service
