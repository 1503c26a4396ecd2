// Pushes: only to who asked for them, well formed, and never one body directly after another.
#include <fmt/format.h>

#include "tools/check/Check.h"
#include "tools/check/Tables.h"
#include "wire/Funcid.h"

namespace check {
namespace {

// What a push must be is checked wherever one arrives: see Talk.

void afterRegistering(Check& check) {
  Talk talk = check.connect();
  const uint32_t status = talk.mustAsk(FUNCID_REGISTER_ANR_CALLBACK);
  if (status != 0) check.skip(fmt::format("registering is refused with status {}", status));
  talk.listen(check.settings().pushWithinMs);
  if (talk.pushes() == 0) check.skip("no push came in this time; --push-within says how long to wait");
  check.came(fmt::format("{} pushes", talk.pushes()));
}

void amongAnswers(Check& check) {
  Talk talk = check.connect();
  if (talk.mustAsk(FUNCID_REGISTER_ANR_CALLBACK) != 0) check.skip("registering is refused");
  for (const int64_t end = client::steadyMs() + check.settings().pushWithinMs; client::steadyMs() < end;) {
    talk.mustAsk(FUNCID_CHECK_PERMISSION);
    talk.mustAsk(FUNCID_REGISTER_ANR_CALLBACK);
    talk.listen(20);
  }
  if (talk.pushes() < 2) check.skip("fewer than two pushes came");
  check.came(fmt::format("{} pushes among {} answers", talk.pushes(), talk.answers()));
}

void notUnasked(Check& check) {
  Talk registered = check.connect(), other = check.connect();
  registered.mustAsk(FUNCID_REGISTER_ANR_CALLBACK);
  other.mustAsk(FUNCID_CHECK_PERMISSION);
  other.listen(check.settings().pushWithinMs);
  if (registered.listen(0) == Fate::CLOSED) check.fail("a registered client was hung up on");
  if (registered.pushes() == 0) check.skip("no push came to the client that had registered, either");
  check.came("none");
}

void registeredAndGone(Check& check) {
  for (int i = 0; i < 10; ++i) check.connect().mustAsk(FUNCID_REGISTER_ANR_CALLBACK);
  Talk talk = check.connect();
  talk.listen(check.settings().quietMs);
  talk.mustAsk(FUNCID_CHECK_PERMISSION);
}

}  // namespace

const std::vector<Case>& pushCases() {
  static const std::vector<Case> kCases = {
      {"pushes.well-formed", BOTH, "1010, then nothing",
       "its answer, then DataCallbacks, never body after body", afterRegistering},
      {"pushes.among-answers", BOTH, "1010 again and again, and 1001, while pushes come",
       "answers and pushes, never body after body", amongAnswers},
      {"pushes.not-unasked", BOTH, "1010 from one client, 1001 from another",
       "pushes for the first one alone", notUnasked},
      {"pushes.registered-and-gone", LOCAL, "1010 from ten clients that leave", "other clients are served",
       registeredAndGone},
  };
  return kCases;
}

}  // namespace check
