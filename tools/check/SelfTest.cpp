#include "tools/check/SelfTest.h"

#include <fmt/format.h>

#include <vector>

#include "tools/check/Check.h"
#include "tools/check/FlawedService.h"
#include "tools/check/FlawedUdpService.h"

namespace check {
namespace {

struct Finder {
  const char* name;
  Verdict verdict = Verdict::FAIL;
};

const struct {
  Flaw flaw;
  const char* name;
  const char* does;
  std::vector<Finder> finders;
} kFlaws[] = {
    {Flaw::ANSWERS_NOTHING, "silent", "answers nothing", {{"answers.check-permission"}}},
    {Flaw::ANSWERS_TWICE, "twice", "answers each request twice", {{"answers.every-request"}}},
    {Flaw::CUTS_TIME_STAMPS, "short-time-stamps", "keeps 32 bits of a time stamp", {{"answers.time-stamp"}}},
    {Flaw::WANTS_A_SEND_TIME, "send-time", "hangs up when the send time is 0", {{"answers.unread-fields"}}},
    {Flaw::SWAPS_ANSWERS, "swaps", "answers each ninth request behind the next one", {{"answers.in-order"}}},
    {Flaw::ANSWERS_THE_LAST_CLIENT,
     "last-client",
     "answers whoever connected last",
     {{"answers.to-the-asker"}}},
    {Flaw::LOSES_SPLIT,
     "loses-split",
     "forgets a request that comes in more than one piece",
     {{"framing.cut-at-every-byte"}, {"framing.byte-by-byte"}}},
    {Flaw::LOSES_COALESCED,
     "loses-coalesced",
     "forgets what comes behind a request in one piece",
     {{"framing.coalesced"}}},
    {Flaw::WAITS_FOR_A_QUIET_MOMENT,
     "waits-for-quiet",
     "answers when no part of a further request is there",
     {{"framing.not-held-back"}}},
    {Flaw::LOSES_ONE_OF_A_HUNDRED,
     "loses-one",
     "never answers the hundredth request",
     {{"framing.pipelined"}}},
    {Flaw::EXPECTS_NO_BODY,
     "expects-no-body",
     "takes a body of 1001 for a header",
     {{"framing.unasked-body"}}},
    {Flaw::DEAF_TO_LONG_BODIES,
     "deaf-to-long-bodies",
     "reads no more once a body is longer than 64 KiB",
     {{"framing.large-body"}}},
    {Flaw::DIES_OF_LENGTHS,
     "dies-of-lengths",
     "stands still over a length that it does not take",
     {{"framing.claimed-length"}}},
    {Flaw::DIES_OF_MAGIC,
     "dies-of-magic",
     "stands still over a wrong magic",
     {{"bad-input.magic"}, {"bad-input.garbage"}}},
    {Flaw::DIES_OF_VERSIONS,
     "dies-of-versions",
     "stands still over another version",
     {{"bad-input.version"}}},
    {Flaw::DEAF_AFTER_UNKNOWN,
     "deaf-after-unknown",
     "reads no more behind an unknown request",
     {{"bad-input.unknown-request"}}},
    {Flaw::TAKES_ANY_BODY, "takes-any-body", "takes any body for a good one", {{"bad-input.body"}}},
    {Flaw::DIES_OF_NEGATIVE_LEVELS,
     "dies-of-levels",
     "stands still over a negative level",
     {{"bad-input.arguments"}}},
    {Flaw::DIES_OF_CUT_REQUESTS,
     "dies-of-cut-requests",
     "stands still when a client leaves within a request",
     {{"bad-input.cut-short"}}},
    {Flaw::FORGETS_ON_HALF_CLOSE,
     "half-close-is-all",
     "forgets what a client asked that has closed its sending half",
     {{"life.half-closed", Verdict::NOTE}}},
    {Flaw::DIES_OF_VANISHED_CLIENTS,
     "dies-of-vanished",
     "stands still when it cannot send an answer",
     {{"life.vanished"}}},
    {Flaw::KEEPS_DESCRIPTORS, "keeps-descriptors", "never closes a connection", {{"life.come-and-go"}}},
    {Flaw::SERVES_EIGHT, "serves-eight", "has no place for a ninth client", {{"life.many-clients"}}},
    {Flaw::SERVES_ONE_AFTER_THE_OTHER,
     "one-at-a-time",
     "serves a client when the one before has left",
     {{"life.idle-clients"}, {"life.busy-neighbour"}}},
    {Flaw::WAITS_FOR_READERS, "waits-for-readers", "waits until an answer is read", {{"life.slow-reader"}}},
    {Flaw::PUSHES_TO_ALL,
     "pushes-to-all",
     "pushes to clients that have not registered",
     {{"answers.nothing-unasked"}, {"pushes.not-unasked"}}},
    {Flaw::PUSHES_NOISE, "pushes-noise", "pushes bytes that are no DataCallback", {{"pushes.well-formed"}}},
    {Flaw::PUSHES_TWO_BODIES,
     "two-bodies",
     "sends two pushes with nothing between them",
     {{"pushes.well-formed"}, {"pushes.among-answers"}}},
    {Flaw::DIES_OF_REGISTERED_AND_GONE,
     "dies-of-registered",
     "stands still when a client leaves that has registered",
     {{"pushes.registered-and-gone"}}},
    {Flaw::NEVER_CANCELS, "never-cancels", "keeps a binding that was cancelled", {{"undo.by-cancel"}}},
    {Flaw::NEVER_EXPIRES,
     "never-expires",
     "keeps a binding whose time is over",
     {{"undo.by-time", Verdict::NOTE}}},
    {Flaw::NEVER_UNDOES,
     "never-undoes",
     "keeps the bindings of a client that has left",
     {{"undo.by-leaving"}, {"undo.overlapping"}}},
    {Flaw::BINDS_ANYBODY,
     "binds-anybody",
     "binds the threads of other processes",
     {{"undo.others-threads", Verdict::NOTE}}},
    {Flaw::PRETENDS_TO_TERMINATE,
     "pretends",
     "answers 1012 with status 0 and ends nobody",
     {{"destructive.terminate", Verdict::NOTE}}},
    {Flaw::DROPS_THE_OLDEST,
     "drops-the-oldest",
     "hangs up on its oldest client",
     {{"destructive.all-places"}}},
    {Flaw::DIES_OF_HALF_BODIES,
     "dies-of-half-bodies",
     "stands still with 64 MiB of unfinished bodies",
     {{"destructive.half-bodies"}}},
    {Flaw::WRONG_CHECKSUMS,
     "wrong-checksums",
     "sends datagrams with wrong checksums",
     {{"answers.check-permission"}, {"udp.acknowledges"}}},
    {Flaw::ACKS_WITHOUT_OFFSET,
     "bare-acks",
     "sends an ACK without offset and length",
     {{"udp.acknowledges"}}},
    {Flaw::ACKS_UNOPENED, "acks-unopened", "acknowledges DATA without a SYN", {{"udp.unopened"}}},
    {Flaw::ACKS_ONCE, "acks-once", "acknowledges no duplicate", {{"udp.duplicates"}}},
    {Flaw::ACKS_AHEAD, "acks-ahead", "acknowledges DATA whose time has not come", {{"udp.reordered"}}},
    {Flaw::SENDS_ONCE, "sends-once", "sends nothing again", {{"udp.lost-replies"}}},
    {Flaw::KNOWS_NO_WINDOW, "no-window", "sends any number of replies at once", {{"udp.window"}}},
    {Flaw::OPENS_ONCE, "opens-once", "goes on as before after a new SYN", {{"udp.starts-anew"}}},
    {Flaw::NEVER_CLOSES, "never-closes", "does not know FIN", {{"udp.closes"}}},
    {Flaw::BELIEVES_CHECKSUMS, "believes-checksums", "takes damaged datagrams", {{"udp.broken-datagrams"}}},
    {Flaw::MIXES_PEERS, "mixes-peers", "takes all peers for one", {{"udp.forged"}}},
    {Flaw::DIES_OF_BAD_MESSAGES,
     "dies-of-messages",
     "stands still over a message that is no request",
     {{"udp.bad-messages"}}},
    {Flaw::DIES_OF_TOTAL_LENGTHS,
     "dies-of-totals",
     "stands still over a total length that it does not take",
     {{"udp.claimed-length"}}},
    {Flaw::WAITS_FOR_ACKS,
     "waits-for-acks",
     "stands still while eight peers acknowledge nothing",
     {{"udp.vanished"}}},
};

bool isOverUdp(Flaw flaw) {
  return flaw >= Flaw::WRONG_CHECKSUMS;
}

const char* verdictText(Verdict verdict) {
  switch (verdict) {
    case Verdict::PASS:
      return "passes";
    case Verdict::NOTE:
      return "passes with a note";
    case Verdict::FAIL:
      return "fails";
    case Verdict::SKIP:
      return "is skipped";
  }
  return "";
}

void add(std::deque<Trial>& trials, int number, Flaw flaw, Verdict wanted, const std::string& flawName,
         const std::string& does) {
  const Case& tried = allCases()[static_cast<size_t>(number - 1)];
  Trial& trial = trials.emplace_back();
  trial.number = number;
  trial.tried = &tried;
  trial.flaw = flaw;
  trial.wanted = wanted;
  trial.name = fmt::format("{} {}", tried.name, flawName);
  trial.sends = fmt::format("{}, to a service that {}", tried.sends, does);
  trial.expects = fmt::format("the case {}", verdictText(wanted));
  trial.shown = {trial.name.c_str(), tried.flags, trial.sends.c_str(), trial.expects.c_str(), nullptr};
}

Verdict tryOn(const Trial& trial, bool isUdp, Settings& settings, std::string& came) {
  FlawedService local(trial.flaw);
  FlawedUdpService udp(trial.flaw);
  if (!(isUdp ? udp.start(came) : local.start(came))) return Verdict::SKIP;
  settings.target.name = local.name();
  settings.target.udp = udp.address();
  survey(settings);
  const Result result = runCase(trial.number, *trial.tried, settings);
  came = fmt::format("it {}: {}", verdictText(result.verdict),
                     result.verdict == Verdict::NOTE ? result.notes.front() : result.came);
  return result.verdict;
}

}  // namespace

const std::deque<Trial>& allTrials() {
  static const auto* const kAll = [] {
    auto* const all = new std::deque<Trial>;
    for (int number = 1; number <= static_cast<int>(allCases().size()); ++number) {
      add(*all, number, Flaw::NONE, Verdict::PASS, "right", "does nothing wrong");
      for (const auto& flaw : kFlaws) {
        for (const Finder& finder : flaw.finders) {
          if (std::string(finder.name) != allCases()[static_cast<size_t>(number - 1)].name) continue;
          add(*all, number, flaw.flaw, finder.verdict, flaw.name, flaw.does);
        }
      }
      if (all->back().flaw != Flaw::NONE) continue;
      all->back().wanted = Verdict::FAIL;  // a case that finds nothing proves nothing
      all->back().shown.expects = "a flaw that this case finds: add one to SelfTest.cpp";
    }
    return all;
  }();
  return *kAll;
}

Result runTrial(const Trial& trial) {
  Settings settings;
  settings.attempts = 1;
  Result result;
  result.number = trial.number;
  result.which = &trial.shown;
  result.sent = trial.sends;
  const int64_t start = client::steadyMs();
  const bool isUdp = isOverUdp(trial.flaw) || (trial.tried->flags & LOCAL) == 0;
  // Hurried at first; a busy machine may need more time to do wrong, or right, as it should.
  for (const int64_t patience : {1, 10}) {
    settings.quietMs = settings.pushWithinMs = 100 * patience;
    settings.answerWithinMs = trial.flaw == Flaw::NONE ? 5000 : 300 * patience;
    const Verdict verdict = tryOn(trial, isUdp, settings, result.came);
    result.verdict = verdict == trial.wanted    ? Verdict::PASS
                     : verdict == Verdict::SKIP ? Verdict::SKIP
                                                : Verdict::FAIL;
    if (result.verdict != Verdict::FAIL) break;
  }
  result.tookMs = client::steadyMs() - start;
  return result;
}

}  // namespace check
