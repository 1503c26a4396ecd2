// The checker examined: does each case find what it is there for, on this machine, and leave a right service
// alone?
//
// A trial is a case against a small service of the checker's own, which is right, or right but for one flaw
// (FlawedServer.h). Its outcome is a Result like a case's: PASS when the case judged as it should, FAIL when
// it did not, SKIP when it could not be tried here.
#pragma once

#include <deque>
#include <string>

#include "tools/check/Case.h"
#include "tools/check/FlawedServer.h"

namespace check {

struct Trial {
  int number;  // the case's
  const Case* tried;
  Flaw flaw;
  Verdict wanted;  // of the case
  std::string name, sends, expects;
  Case shown;  // points into the texts above
};

/// All trials, in the order of the cases: each against a right service, then against the flaws that it finds.
const std::deque<Trial>& allTrials();

Result runTrial(const Trial& trial);

}  // namespace check
