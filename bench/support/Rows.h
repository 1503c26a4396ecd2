// What a benchmark program of this folder reports: rows, each a figure beside its floor from the same run.
//
// A program registers ordinary Google Benchmarks and, beside them, rows that say which two of them belong
// together. Main.cpp runs both alternately (every repetition of every benchmark, in random order), takes the
// medians and writes the rows as a table, and with --rows=FILE as JSON for scripts/bench.sh.
//
//   BENCHMARK(request)->Name("request")->Iterations(100000)->UseRealTime();
//   BENCHMARK(bareRequest)->Name("request floor")->Iterations(100000)->UseRealTime();
//   const Row row{"requests per second", "1/s", "request", "request floor", "per_s", atLeast(1.0)};
#pragma once

#include <string>

/// What a ratio (or, without a floor, the figure itself) is to reach.
struct Target {
  enum class Kind { None, AtLeast, AtMost } kind = Kind::None;
  double bound = 0;
};
inline Target atLeast(double bound) {
  return {Target::Kind::AtLeast, bound};
}
inline Target atMost(double bound) {
  return {Target::Kind::AtMost, bound};
}

/// One row. Constructing it, before main(), is all that is needed.
struct Row {
  /// name    what is measured, for people
  /// unit    of the figure: "us", "1/s", "blocks"
  /// of      the benchmark as Google Benchmark names it when nothing is appended (the name up to the first
  ///         "/iterations:", "/real_time" or the like)
  /// floor   the benchmark beside it, or "" for a figure that stands alone
  /// metric  "time" (microseconds of an iteration, as the benchmark measures time) or one of its counters
  /// target  what figure / floor is to reach; of a row without a floor, the figure
  /// plot    the plot that shows it, or ""; x is its place on the horizontal axis
  Row(std::string name, std::string unit, std::string of, std::string floor, std::string metric,
      Target target = {}, std::string plot = "", double x = 0);

  std::string name, unit, of, floor, metric;
  Target target;
  std::string plot;
  double x;
};
