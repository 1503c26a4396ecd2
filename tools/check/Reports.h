// What the checker says: for people, for programs, for build servers.
#pragma once

#include <string>
#include <vector>

#include "tools/check/Case.h"

namespace check {

/// The counts of a run.
struct Totals {
  int passed = 0, noted = 0, failed = 0, skipped = 0;
  void add(Verdict verdict);
};

/// A case as lines of text.
/// brief      one line, unless it has failed or has notes
/// nameWidth  columns for the name
std::string textOf(const Result& result, bool brief, int nameWidth);
/// what  they are counts of: "cases"
std::string textOf(const Totals& totals, int64_t tookMs, const char* what);

/// A case as one JSON object.
std::string jsonOf(const Result& result);
std::string jsonOf(const Totals& totals, int64_t tookMs);

/// A run as JUnit's XML. strict  whether a note counts as a failure
std::string junitOf(const std::vector<Result>& results, const std::string& service, bool strict);

}  // namespace check
