// The checker against services that do one thing wrong each: the right case finds it.
#include "tools/check/Check.h"

#include <gmock/gmock.h>

#include "check/TinyService.h"
#include "support/RunningService.h"
#include "support/UdpMangler.h"
#include "tools/check/Reports.h"

namespace {

using check::Verdict;
using testing::HasSubstr;

check::Settings settingsFor(const std::string& name) {
  check::Settings settings;
  settings.target.name = name;
  settings.answerWithinMs = 500;
  settings.quietMs = settings.pushWithinMs = 100;
  return settings;
}

check::Result tryCase(const std::string& name, const check::Settings& settings) {
  for (const check::Case& which : check::allCases()) {
    if (which.name == name) return check::runCase(1, which, settings);
  }
  ADD_FAILURE() << "no case " << name;
  return {};
}

void expectAllPass(check::Settings settings, unsigned transport) {
  settings.answerWithinMs = 5000;
  check::survey(settings);
  for (const check::Case& which : check::allCases()) {
    if ((which.flags & transport) == 0 || (which.flags & check::DESTRUCTIVE) != 0) continue;
    const check::Result result = check::runCase(1, which, settings);
    // Over UDP, where requests stand alone, an answer may overtake another one.
    const bool noted = result.verdict == Verdict::NOTE && transport == check::UDP;
    EXPECT_TRUE(result.verdict == Verdict::PASS || result.verdict == Verdict::SKIP || noted)
        << check::textOf(result, false);
  }
}

TEST(Checker, PassesServicesThatAreRight) {
  const TinyService tiny(Wrong::NOTHING);
  expectAllPass(settingsFor(tiny.name()), check::LOCAL);
  service::ServerOptions options;
  options.onRegister = {{1, "first"}, {2, "second"}};
  options.repeat = {{{3, "again"}, 20, 0}};
  const RunningService reference({}, options);
  expectAllPass(settingsFor(reference.name()), check::LOCAL);
  check::Settings udp = settingsFor("");
  client::parseUdp(reference.udpAddress(), udp.target);
  expectAllPass(udp, check::UDP);
}

TEST(Checker, FindsWhatAServiceDoesWrong) {
  const struct {
    Wrong wrong;
    const char* finder;
    Verdict verdict = Verdict::FAIL;
  } rows[] = {
      {Wrong::TIME_STAMP_OF_32_BITS, "answers.time-stamp"},
      {Wrong::WANTS_A_SEND_TIME, "answers.unread-fields"},
      {Wrong::ANSWERS_THE_LAST_CLIENT, "answers.to-the-asker"},
      {Wrong::PUSHES_TO_ALL, "answers.nothing-unasked"},
      {Wrong::WAITS_FOR_A_QUIET_MOMENT, "framing.not-held-back"},
      {Wrong::BELIEVES_1001_HAS_NO_BODY, "framing.unasked-body"},
      {Wrong::DEAF_TO_LONG_BODIES, "framing.large-body"},
      {Wrong::DIES_OF_LENGTHS, "framing.claimed-length"},
      {Wrong::DIES_OF_MAGIC, "bad-input.magic"},
      {Wrong::DIES_OF_MAGIC, "bad-input.garbage"},
      {Wrong::DIES_OF_VERSIONS, "bad-input.version"},
      {Wrong::DEAF_AFTER_UNKNOWN, "bad-input.unknown-request"},
      {Wrong::TAKES_ANY_BODY, "bad-input.body"},
      {Wrong::DIES_OF_NEGATIVE_LEVELS, "bad-input.arguments"},
      {Wrong::DIES_OF_CUT_REQUESTS, "bad-input.cut-short"},
      {Wrong::FORGETS_ON_HALF_CLOSE, "life.half-closed", Verdict::NOTE},
      {Wrong::DIES_OF_VANISHED_CLIENTS, "life.vanished"},
      {Wrong::KEEPS_DESCRIPTORS, "life.come-and-go"},
      {Wrong::SERVES_EIGHT, "life.many-clients"},
      {Wrong::SERVES_ONE_AFTER_THE_OTHER, "life.idle-clients"},
      {Wrong::WAITS_FOR_READERS, "life.slow-reader"},
      {Wrong::SERVES_ONE_AFTER_THE_OTHER, "life.busy-neighbour"},
      {Wrong::PUSHES_NOISE, "pushes.well-formed"},
      {Wrong::PUSHES_TO_ALL, "pushes.not-unasked"},
      {Wrong::DIES_OF_REGISTERED_AND_GONE, "pushes.registered-and-gone"},
      {Wrong::NEVER_CANCELS, "undo.by-cancel"},
      {Wrong::NEVER_EXPIRES, "undo.by-time", Verdict::NOTE},
      {Wrong::BINDS_ANYBODY, "undo.others-threads", Verdict::NOTE},
  };
  for (const auto& row : rows) {
    const TinyService service(row.wrong);
    const check::Result result = tryCase(row.finder, settingsFor(service.name()));
    EXPECT_EQ(result.verdict, row.verdict) << static_cast<int>(row.wrong) << check::textOf(result, false);
  }
}

TEST(Checker, FindsEachScriptedFaultOfTheReferenceService) {
  const struct {
    const char* fault;
    const char* finder;
    Verdict verdict = Verdict::FAIL;
  } rows[] = {
      {"delay=2000", "answers.check-permission"},
      {"no-answer", "answers.check-permission"},
      {"no-answer,every=7", "framing.pipelined"},
      {"twice,every=5", "answers.every-request"},
      {"swap,every=9", "answers.in-order"},
      {"wrong-timestamp,every=2", "answers.time-stamp"},
      {"wrong-funcid,every=5", "answers.every-request"},
      {"two-bodies,only=1010", "pushes.well-formed"},
      {"two-bodies,only=1010", "pushes.among-answers"},
      {"garbage,every=9", "answers.in-order"},
      {"bad-magic", "answers.check-permission"},
      {"cut-header", "answers.check-permission"},
      {"huge-length", "answers.check-permission"},
      {"close,every=9", "framing.pipelined"},
      {"half-close,every=9", "framing.pipelined"},
      {"stop-reading,every=9", "framing.coalesced"},
      {"lose-split", "framing.cut-at-every-byte"},
      {"lose-split", "framing.byte-by-byte"},
      {"lose-coalesced", "framing.coalesced"},
      {"keep-boosts", "undo.by-leaving"},
      {"keep-boosts", "undo.overlapping"},
      {"no-push", "pushes.well-formed", Verdict::SKIP},
      {"refuse", "answers.check-permission"},
      {"no-accept", "answers.check-permission"},
  };
  for (const auto& row : rows) {
    service::ServerOptions options;
    std::string problem;
    ASSERT_TRUE(service::parseFault(row.fault, options.faults.emplace_back(), problem)) << problem;
    const RunningService service({}, options);
    const check::Result result = tryCase(row.finder, settingsFor(service.name()));
    EXPECT_EQ(result.verdict, row.verdict) << row.fault << "\n" << check::textOf(result, false);
  }
}

TEST(Checker, FindsWhatAUdpServiceDoesWrong) {
  using D = std::optional<Bytes>;
  const auto is = [](const Bytes& d, int type) { return d.size() > 1 && d[1] == type; };
  const struct {
    const char* finder;
    // What becomes of a datagram on its way from the service; `seen`: how often its like has passed before.
    std::function<D(const Bytes&, int seen)> fromService;
    // What the service answers to a datagram at once, beside what it does.
    std::function<D(const Bytes&)> answer;
  } rows[] = {
      {"udp.acknowledges",
       [&](const Bytes& d, int) { return is(d, PACKET_ACK) ? datagram(PACKET_ACK, sequenceOf(d)) : d; },
       {}},
      {"udp.unopened",
       {},
       [&](const Bytes& d) { return is(d, PACKET_DATA) ? D(datagram(PACKET_ACK, sequenceOf(d))) : D(); }},
      {"udp.duplicates",
       [&](const Bytes& d, int seen) { return is(d, PACKET_ACK) && seen > 0 ? D() : d; },
       {}},
      {"udp.reordered",
       {},
       [&](const Bytes& d) { return is(d, PACKET_DATA) ? D(datagram(PACKET_ACK, sequenceOf(d))) : D(); }},
      {"udp.lost-replies",
       [&](const Bytes& d, int seen) { return is(d, PACKET_DATA) && seen > 0 ? D() : d; },
       {}},
      {"udp.closes",
       [&](const Bytes& d, int) { return is(d, PACKET_ACK) && sequenceOf(d) == 100002 ? D() : d; },
       {}},
      {"udp.broken-datagrams",
       {},
       [&](const Bytes& d) { return is(d, PACKET_DATA) ? D(datagram(PACKET_ACK, sequenceOf(d))) : D(); }},
      {"udp.forged", [](const Bytes& d, int) { return d; }, {}},  // the mangler makes one peer of all
      {"udp.starts-anew",
       [&](const Bytes& d, int seen) { return is(d, PACKET_ACK) && seen > 1 ? D() : d; },
       {}},
      {"answers.check-permission",
       [](const Bytes& d, int) { return D(d.substr(0, 20) + "x" + d.substr(21)); },
       {}},
  };
  const RunningService reference;
  for (const auto& row : rows) {
    const UdpMangler mangler(reference.udpAddress(), row.fromService, row.answer);
    check::Settings settings = settingsFor("");
    settings.target.udp = mangler.address();
    const check::Result result = tryCase(row.finder, settings);
    EXPECT_EQ(result.verdict, Verdict::FAIL) << check::textOf(result, false);
  }
}

}  // namespace
