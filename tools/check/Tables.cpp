#include "tools/check/Tables.h"

namespace check {

const std::vector<Case>& allCases() {
  static const auto* const kAll = [] {
    auto* const all = new std::vector<Case>;
    for (const auto* const table : {&answerCases(), &framingCases(), &badInputCases(), &lifeCases(),
                                    &pushCases(), &undoCases(), &udpCases(), &destructiveCases()}) {
      all->insert(all->end(), table->begin(), table->end());
    }
    return all;
  }();
  return *kAll;
}

}  // namespace check
