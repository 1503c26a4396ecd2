#include "Dispatcher.h"

#include <algorithm>
#include <set>

#include "CoreBinding.h"
#include "FreqBoost.h"
#include "IoBoost.h"
#include "Preload.h"
#include "protocol.h"

namespace service {
namespace {

using Tids = google::protobuf::RepeatedField<int32_t>;

const Outcome kPeerUnknown{STATUS_PEER_UNKNOWN, "which process asks is not known (over UDP it never is)"};

std::string endedText(size_t count) {
  return count == 0 ? "nothing was held" : std::to_string(count) + " ended";
}

}  // namespace

struct Dispatcher::Handle {
  Dispatcher& dispatcher;
  const Request& request;
  const Peer& peer;
  const int64_t now;

  // ---- 1002, 1004, 1006, 1013: boosts ----

  Outcome operator()(const amc::RequestCPUHighFreq& message) const {
    return timed(message.timeoutms(), [&](const Hold& hold) { return boostCpu(hold, message.level()); });
  }
  Outcome operator()(const amc::RequestHighIOFreq& message) const {
    return timed(message.timeoutms(), [&](const Hold& hold) { return boostIo(hold, message.level()); });
  }
  Outcome operator()(const amc::RequestCPUCoreForThread& message) const {
    if (!peer.isKnown()) return kPeerUnknown;
    return timed(message.timeout(), [&](const Hold& hold) { return bind(hold, message.bindtids()); });
  }
  Outcome operator()(const amc::RequestUnifyCPUIOThreadCore& message) const {
    if (!peer.isKnown()) return kPeerUnknown;
    return timed(message.timeout(), [&](const Hold& hold) {
      OutcomeSum outcome;  // a part with level 0, or without threads, is not asked for
      if (message.cpulevel() != 0) outcome.add(boostCpu(hold, message.cpulevel()));
      if (message.iolevel() != 0) outcome.add(boostIo(hold, message.iolevel()));
      if (message.bindtids_size() != 0) outcome.add(bind(hold, message.bindtids()));
      return outcome.empty() ? Outcome{STATUS_DONE, "no part of the boost is asked for"} : outcome.sum();
    });
  }

  // ---- 1005, 1014: what they take back; 1003 and 1007 have no message, see below ----

  Outcome operator()(const amc::CancelCPUCoreForThread& message) const {
    if (!peer.isKnown()) return kPeerUnknown;
    const std::set<int> tids(message.bindtids().begin(), message.bindtids().end());
    return cancel(FUNCID_REQUEST_CPU_CORE_FOR_THREAD, [&](const Hold& hold) { return tids.count(hold.tid); });
  }
  Outcome operator()(const amc::CancelUnifyCPUIOThreadCore& message) const {
    if (!peer.isKnown()) return kPeerUnknown;
    const std::set<int> tids(message.bindtids().begin(), message.bindtids().end());
    return cancel(FUNCID_REQUEST_UNIFY_CPU_IO_THREAD_CORE, [&](const Hold& hold) {
      switch (hold.part) {
        case Part::CPU:
          return message.cancelcpu() != 0;
        case Part::IO:
          return message.cancelio() != 0;
        case Part::THREAD:  // without a list: all threads
          return message.cancelthread() != 0 && (tids.empty() || tids.count(hold.tid) != 0);
      }
      return false;
    });
  }

  // ---- the rest ----

  Outcome operator()(const amc::RequestScreenResolution& /*message*/) const {
    return {STATUS_DONE, "recorded"};  // there is no screen here to set
  }
  Outcome operator()(const amc::RequestBootPreLoadResource& message) const {
    return preloadFiles(message, peer);
  }
  Outcome operator()(std::monostate /*none*/) const {
    switch (request.funcid) {
      case FUNCID_CHECK_PERMISSION:
        return {STATUS_DONE, peer.isKnown() ? "allowed" : "allowed, but for what needs a known process"};
      case FUNCID_CANCEL_CPU_HIGH_FREQ:
        return cancel(FUNCID_REQUEST_CPU_HIGH_FREQ, [](const Hold&) { return true; });
      case FUNCID_CANCEL_HIGH_IO_FREQ:
        return cancel(FUNCID_REQUEST_HIGH_IO_FREQ, [](const Hold&) { return true; });
      case FUNCID_RESET_SCREEN_RESOLUTION:
        return {STATUS_DONE, "recorded"};
      case FUNCID_REGISTER_ANR_CALLBACK:
        return {STATUS_DONE, "registered"};
      case FUNCID_TERMINATE_APP:
        return terminate();
      default:
        return {STATUS_UNKNOWN_REQUEST, "no such request"};
    }
  }

 private:
  /// Makes the hold that a timeout (milliseconds; 0: until it is cancelled or the peer goes) stands for.
  template <class Deed>
  Outcome timed(int32_t timeoutMs, Deed deed) const {
    if (timeoutMs < 0) return {STATUS_BAD_ARGUMENT, "a negative timeout"};
    if (!peer.isKnown() && (timeoutMs == 0 || timeoutMs > kMaxUnknownPeerBoostMs)) {
      return {STATUS_BAD_ARGUMENT, "where the process is not known a boost needs a timeout of 1 to " +
                                       std::to_string(kMaxUnknownPeerBoostMs) + " ms"};
    }
    Hold hold;
    hold.peerId = peer.id;
    hold.funcid = request.funcid;
    hold.expiresAt = timeoutMs == 0 ? kNoExpiry : now + timeoutMs;
    return deed(hold);
  }

  Outcome boostCpu(Hold hold, int32_t level) const {
    if (level < 1) return {STATUS_BAD_ARGUMENT, "CPU levels start at 1"};
    hold.part = Part::CPU;
    hold.strength = level;
    return dispatcher.m_boosts.hold(hold, std::make_unique<FreqBoost>(dispatcher.m_policy.sysRoot));
  }

  Outcome boostIo(Hold hold, int32_t level) const {
    if (level < 1) return {STATUS_BAD_ARGUMENT, "I/O levels start at 1"};
    // The effect is on a process, so that over UDP there is nothing to set it for.
    if (!peer.isKnown())
      return {STATUS_DONE, "recorded: which process asks is not known (over UDP it never is)"};
    hold.part = Part::IO;
    hold.strength = level;
    return dispatcher.m_boosts.hold(hold, std::make_unique<IoBoost>(peer.process));
  }

  Outcome bind(Hold hold, const Tids& tids) const {
    if (tids.empty()) return {STATUS_BAD_ARGUMENT, "no threads named"};
    if (tids.size() > kMaxBindtids) {
      return {STATUS_BAD_ARGUMENT, "more than " + std::to_string(kMaxBindtids) + " threads"};
    }
    hold.part = Part::THREAD;
    OutcomeSum outcome;
    for (const int tid : std::set<int>(tids.begin(), tids.end())) {
      hold.tid = tid;
      const auto start = peer.process->threadStart(tid);
      if (!start) {
        outcome.add({STATUS_NOT_YOURS, std::to_string(tid) + " is no thread of the requesting process"});
      } else {
        outcome.add(dispatcher.m_boosts.hold(hold, std::make_unique<CoreBinding>(peer.process, tid, *start)));
      }
    }
    return outcome.sum();
  }

  /// A cancel takes back what the peer was given by the request it belongs to, and nothing else.
  template <class Matches>
  Outcome cancel(uint16_t funcid, Matches matches) const {
    const auto ends = [&](const Hold& hold) {
      return hold.peerId == peer.id && hold.funcid == funcid && matches(hold);
    };
    return {STATUS_DONE, endedText(dispatcher.m_boosts.end(ends, "cancelled"))};
  }

  Outcome terminate() const {
    if (!peer.isKnown()) return kPeerUnknown;
    if (!dispatcher.m_policy.allowTerminate) {
      return {STATUS_NOT_PERMITTED, "the service was started without --allow-terminate"};
    }
    const int error = peer.process->terminate();
    if (error != 0) return failure("SIGTERM", error);
    return {STATUS_DONE, "SIGTERM sent to process " + std::to_string(peer.process->pid())};
  }
};

Outcome Dispatcher::handle(const Request& request, const Peer& peer, int64_t now) {
  const auto scripted = m_policy.scriptedStatus.find(request.funcid);
  if (scripted != m_policy.scriptedStatus.end()) return {scripted->second, "scripted, nothing was done"};
  return std::visit(Handle{*this, request, peer, now}, request.message);
}

void Dispatcher::peerGone(const Peer& peer) {
  m_boosts.end([&](const Hold& hold) { return hold.peerId == peer.id; }, peer.name + " has gone");
}

}  // namespace service
