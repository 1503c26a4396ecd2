// Carries requests out: the place where a service decides what each request means.
//
// Whoever builds a service of their own changes this unit and the settings it uses; sockets and framing
// (Server), decoding (Requests) and bookkeeping (Boosts) stay. It belongs to the server's thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Boosts.h"
#include "Peer.h"
#include "Requests.h"
#include "Status.h"

namespace service {

/// What the service's operator chooses.
struct Policy {
  std::map<uint16_t, uint32_t> scriptedStatus;  // these identifiers are answered so, and nothing is done
  bool allowTerminate = false;
  std::string sysRoot = "/sys";
};

/// Over UDP nobody notices that a peer has gone, so a boost needs an end of its own: at most this long.
constexpr int64_t kMaxUnknownPeerBoostMs = 600'000;

/// Threads that one request may name.
constexpr int kMaxBindtids = 1024;

class Dispatcher {
 public:
  Dispatcher(Policy policy, const Journal& journal) : m_policy(std::move(policy)), m_boosts(journal) {}

  /// Carries out one request, writes nothing. now: milliseconds of the clock of `boosts()`.
  Outcome handle(const Request& request, const Peer& peer, int64_t now);

  /// Undoes what the peer's boosts set. Its id may then be forgotten.
  void peerGone(const Peer& peer);

  Boosts& boosts() { return m_boosts; }

 private:
  struct Handle;  // one overload per message

  const Policy m_policy;
  Boosts m_boosts;
};

}  // namespace service
