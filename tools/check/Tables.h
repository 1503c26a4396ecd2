// The tables of cases, one for each subject.
#pragma once

#include <vector>

#include "tools/check/Case.h"

namespace check {

const std::vector<Case>& answerCases();
const std::vector<Case>& framingCases();
const std::vector<Case>& badInputCases();
const std::vector<Case>& lifeCases();
const std::vector<Case>& pushCases();
const std::vector<Case>& undoCases();
const std::vector<Case>& udpCases();
const std::vector<Case>& destructiveCases();

}  // namespace check
