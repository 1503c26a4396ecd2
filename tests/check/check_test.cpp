// The checker against the reference service, right and with one scripted fault. (`check --self-test`, which
// ctest runs as check.SelfTest, tries each case on services of its own.)
#include "tools/check/Check.h"

#include "support/RunningService.h"
#include "tools/check/Reports.h"

namespace {

using check::Verdict;

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
        << check::textOf(result, false, 28);
  }
}

TEST(Checker, PassesServicesThatAreRight) {
  service::ServerOptions options;
  options.onRegister = {{1, "first"}, {2, "second"}};
  options.repeat = {{{3, "again"}, 20, 0}};
  const RunningService reference({}, options);
  expectAllPass(settingsFor(reference.name()), check::LOCAL);
  check::Settings udp = settingsFor("");
  client::parseUdp(reference.udpAddress(), udp.target);
  expectAllPass(udp, check::UDP);
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
    EXPECT_EQ(result.verdict, row.verdict) << row.fault << "\n" << check::textOf(result, false, 28);
  }
}

}  // namespace
