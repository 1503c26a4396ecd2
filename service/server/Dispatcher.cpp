#include "service/server/Dispatcher.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "service/effects/CoreBinding.h"
#include "service/effects/FrequencyFloor.h"
#include "service/effects/IoPriority.h"
#include "service/effects/Recorded.h"
#include "wire/Funcid.h"

namespace service {
namespace {

using Tids = google::protobuf::RepeatedField<int32_t>;

const Outcome kProcessUnknown{Status::PROCESS_UNKNOWN,
                              "which process asks is not known (over UDP it never is)"};

}  // namespace

struct Dispatcher::Handle {
  Dispatcher& dispatcher;
  const Request& request;
  const Requester& requester;
  const uint64_t ticket;
  const int64_t now;
  bool& isLater;  // set when the outcome comes through the preloads

  // ---- 1002, 1004, 1006, 1013: boosts ----

  Outcome operator()(const amc::RequestCPUHighFreq& message) const {
    return timed(message.timeoutms(), [&](const Boost& boost) { return boostCpu(boost, message.level()); });
  }
  Outcome operator()(const amc::RequestHighIOFreq& message) const {
    return timed(message.timeoutms(), [&](const Boost& boost) { return boostIo(boost, message.level()); });
  }
  Outcome operator()(const amc::RequestCPUCoreForThread& message) const {
    if (!requester.isKnown()) return kProcessUnknown;
    return timed(message.timeout(), [&](const Boost& boost) { return bind(boost, message.bindtids()); });
  }
  Outcome operator()(const amc::RequestUnifyCPUIOThreadCore& message) const {
    if (!requester.isKnown()) return kProcessUnknown;
    return timed(message.timeout(), [&](const Boost& boost) {
      OutcomeSum outcome;  // a part with level 0, or without threads, is not asked for
      if (message.cpulevel() != 0) outcome.add(boostCpu(boost, message.cpulevel()));
      if (message.iolevel() != 0) outcome.add(boostIo(boost, message.iolevel()));
      if (message.bindtids_size() != 0) outcome.add(bind(boost, message.bindtids()));
      return outcome.empty() ? Outcome{Status::DONE, "no part of the boost is asked for"} : outcome.sum();
    });
  }

  // ---- 1005, 1014: what they take back; 1003 and 1007 have no message, see below ----

  Outcome operator()(const amc::CancelCPUCoreForThread& message) const {
    if (!requester.isKnown()) return kProcessUnknown;
    const std::set<int> tids(message.bindtids().begin(), message.bindtids().end());
    return cancel(FUNCID_REQUEST_CPU_CORE_FOR_THREAD,
                  [&](const Boost& boost) { return tids.count(boost.tid); });
  }
  Outcome operator()(const amc::CancelUnifyCPUIOThreadCore& message) const {
    if (!requester.isKnown()) return kProcessUnknown;
    const std::set<int> tids(message.bindtids().begin(), message.bindtids().end());
    return cancel(FUNCID_REQUEST_UNIFY_CPU_IO_THREAD_CORE, [&](const Boost& boost) {
      switch (boost.part) {
        case Part::CPU:
          return message.cancelcpu() != 0;
        case Part::IO:
          return message.cancelio() != 0;
        case Part::THREAD:  // without a list: all threads
          return message.cancelthread() != 0 && (tids.empty() || tids.count(boost.tid) != 0);
      }
      return false;
    });
  }

  // ---- the rest ----

  Outcome operator()(const amc::RequestScreenResolution& /*message*/) const {
    return {Status::DONE, "recorded"};  // there is no screen here to set
  }
  Outcome operator()(const amc::RequestBootPreLoadResource& message) const {
    if (message.files_size() == 0) return {Status::DONE, "no files named, nothing to read ahead"};
    if (const auto refused = rightsRefusal()) return *refused;
    isLater = true;
    dispatcher.m_preloads.start({ticket,
                                 requester.user,
                                 {message.files().begin(), message.files().end()},
                                 request.leftOutFiles,
                                 Eyes::of(requester.process.get())},
                                now);
    return {};
  }
  Outcome operator()(std::monostate /*none*/) const {
    switch (request.funcid) {
      case FUNCID_CHECK_PERMISSION:
        return {Status::DONE,
                requester.isKnown() ? "allowed" : "allowed, but for what needs a known process"};
      case FUNCID_CANCEL_CPU_HIGH_FREQ:
        return cancel(FUNCID_REQUEST_CPU_HIGH_FREQ, [](const Boost&) { return true; });
      case FUNCID_CANCEL_HIGH_IO_FREQ:
        return cancel(FUNCID_REQUEST_HIGH_IO_FREQ, [](const Boost&) { return true; });
      case FUNCID_RESET_SCREEN_RESOLUTION:
        return {Status::DONE, "recorded"};
      case FUNCID_REGISTER_ANR_CALLBACK:
        return {Status::DONE, "registered"};
      case FUNCID_TERMINATE_APP:
        return terminate();
      default:
        return {Status::UNKNOWN_REQUEST, "no such request"};
    }
  }

 private:
  /// Nothing while the requester has the rights that it connected with, or is not known anyway.
  std::optional<Outcome> rightsRefusal() const {
    const std::string problem = requester.isKnown() ? requester.process->rightsProblem() : "";
    if (problem.empty()) return std::nullopt;
    return Outcome{Status::NOT_PERMITTED, problem};
  }

  /// Makes the boost that a timeout (milliseconds; 0: until it is cancelled or the client goes) stands for.
  template <class Deed>
  Outcome timed(int32_t timeoutMs, Deed deed) const {
    if (timeoutMs < 0) return {Status::BAD_ARGUMENT, "a negative timeout"};
    if (!requester.isKnown() && (timeoutMs == 0 || timeoutMs > kMaxUnknownBoostMs)) {
      return {Status::BAD_ARGUMENT,
              fmt::format("where the process is not known a boost needs a timeout of 1 to {} ms",
                          kMaxUnknownBoostMs)};
    }
    if (const auto refused = rightsRefusal()) return *refused;
    Boost boost;
    boost.holder = requester.id;
    boost.user = requester.user;
    boost.funcid = request.funcid;
    boost.expiresAt = timeoutMs == 0 ? kNoExpiry : now + timeoutMs;
    return deed(boost);
  }

  Outcome boostCpu(Boost boost, int32_t level) const {
    if (level < 1) return {Status::BAD_ARGUMENT, "CPU levels start at 1"};
    boost.part = Part::CPU;
    boost.strength = level;
    return dispatcher.m_boosts.add(boost, std::make_unique<FrequencyFloor>(dispatcher.m_policy.sysRoot));
  }

  Outcome boostIo(Boost boost, int32_t level) const {
    if (level < 1) return {Status::BAD_ARGUMENT, "I/O levels start at 1"};
    // The effect is on a process, so that over UDP there is nothing to set it for.
    if (!requester.isKnown())
      return {Status::DONE, "recorded: which process asks is not known (over UDP it never is)"};
    boost.part = Part::IO;
    boost.strength = level;
    return dispatcher.m_boosts.add(boost, std::make_unique<IoPriority>(requester.process));
  }

  Outcome bind(Boost boost, const Tids& tids) const {
    if (tids.empty()) return {Status::BAD_ARGUMENT, "no threads named"};
    if (tids.size() > kMaxBindtids) {
      return {Status::BAD_ARGUMENT, fmt::format("more than {} threads", kMaxBindtids)};
    }
    boost.part = Part::THREAD;
    OutcomeSum outcome;
    for (const int tid : std::set<int>(tids.begin(), tids.end())) {
      boost.tid = tid;
      const ThreadLook look = requester.process->thread(tid);
      if (look.state == ThreadLook::State::UNCLEAR) {
        outcome.add(failure(fmt::format("looking at thread {}", tid), look.error));
      } else if (!look.isThere()) {
        outcome.add({Status::NOT_YOURS, fmt::format("{} is no thread of the requesting process", tid)});
      } else {
        outcome.add(dispatcher.m_boosts.add(
            boost, std::make_unique<CoreBinding>(requester.process, tid, look.start)));
      }
    }
    return outcome.sum();
  }

  /// A cancel takes back what the client was given by the request it belongs to, and nothing else.
  template <class Matches>
  Outcome cancel(uint16_t funcid, Matches matches) const {
    const auto ends = [&](const Boost& boost) { return boost.funcid == funcid && matches(boost); };
    const size_t count = dispatcher.m_boosts.end(requester.id, ends, "cancelled", now);
    return {Status::DONE, count == 0 ? "nothing was held" : fmt::format("{} ended", count)};
  }

  Outcome terminate() const {
    if (!requester.isKnown()) return kProcessUnknown;
    if (!dispatcher.m_policy.allowTerminate) {
      return {Status::NOT_PERMITTED, "the service was started without --allow-terminate"};
    }
    if (const auto refused = rightsRefusal()) return *refused;
    const int error = requester.process->terminate();
    if (error != 0) return failure("SIGTERM", error);
    return {Status::DONE, fmt::format("SIGTERM sent to process {}", requester.process->pid())};
  }
};

std::optional<Outcome> Dispatcher::handle(const Request& request, const Requester& requester, uint64_t ticket,
                                          int64_t now) {
  const auto scripted = m_policy.scriptedStatus.find(request.funcid);
  if (scripted != m_policy.scriptedStatus.end()) {
    return Outcome{scripted->second, "scripted, nothing was done"};
  }
  bool isLater = false;
  Outcome outcome = std::visit(Handle{*this, request, requester, ticket, now, isLater}, request.message);
  if (isLater) return std::nullopt;
  return outcome;
}

void Dispatcher::putBack(Record& record, int64_t now) {
  const auto left = record.left();
  for (const auto& [key, found] : left) {
    std::unique_ptr<Setting> setting = settingOfRecord(found, m_policy.sysRoot);
    if (setting != nullptr && setting->key() == key) {
      m_boosts.putBack(std::move(setting), now);
    } else {
      record.forget(key);  // its process has ended
    }
  }
}

void Dispatcher::requesterGone(const Requester& requester, const std::string& why, int64_t now) {
  m_boosts.end(
      requester.id, [](const Boost&) { return true; }, why, now);
}

}  // namespace service
