// The main function of every benchmark program: see Rows.h for what it adds to Google Benchmark's.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <vector>

#include "support/Rows.h"

namespace {

std::vector<Row>& rows() {
  static auto& all = *new std::vector<Row>;
  return all;
}

constexpr char kUsage[] =
    "What this program adds to Google Benchmark's options:\n"
    "  --rows=FILE  writes the rows to FILE, as a JSON array\n"
    "  --cpu=N      runs everything on processor N alone\n";

double median(std::vector<double> values) {
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// Google Benchmark's table, and the figures of every repetition.
class Collector : public benchmark::ConsoleReporter {
 public:
  Collector() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string name =
          run.run_name.function_name + (run.run_name.args.empty() ? "" : "/") + run.run_name.args;
      if (run.error_occurred) m_failed = true;
      const double iterations = static_cast<double>(std::max<int64_t>(run.iterations, 1));
      m_figures[name]["time"].push_back(run.real_accumulated_time / iterations * 1e6);
      for (const auto& counter : run.counters) m_figures[name][counter.first].push_back(counter.second.value);
    }
    ConsoleReporter::ReportRuns(runs);
  }
  /// The median over the repetitions; not a number for what was not run.
  double figure(const std::string& benchmark, const std::string& metric) const {
    const auto found = m_figures.find(benchmark);
    if (found == m_figures.end()) return NAN;
    const auto values = found->second.find(metric);
    return values == found->second.end() ? NAN : median(values->second);
  }
  bool failed() const { return m_failed; }

 private:
  std::map<std::string, std::map<std::string, std::vector<double>>> m_figures;
  bool m_failed = false;
};

bool met(const Target& target, double reached) {
  return target.kind == Target::Kind::None ||
         (target.kind == Target::Kind::AtLeast ? reached >= target.bound : reached <= target.bound);
}

std::string shown(const Target& target) {
  if (target.kind == Target::Kind::None) return "";
  char text[32];
  snprintf(text, sizeof(text), "%s %.4g", target.kind == Target::Kind::AtLeast ? ">=" : "<=", target.bound);
  return text;
}

std::string number(double value) {
  char text[32];
  snprintf(text, sizeof(text), "%.6g", value);
  return std::isfinite(value) ? text : "null";
}

}  // namespace

Row::Row(std::string name, std::string unit, std::string of, std::string floor, std::string metric,
         Target target, std::string plot, double x)
    : name(std::move(name)),
      unit(std::move(unit)),
      of(std::move(of)),
      floor(std::move(floor)),
      metric(std::move(metric)),
      target(target),
      plot(std::move(plot)),
      x(x) {
  rows().push_back(*this);
}

int main(int argc, char** argv) {
  std::string file;
  // Alternated repetitions, unless the caller wants otherwise.
  std::vector<char*> arguments = {argv[0], const_cast<char*>("--benchmark_enable_random_interleaving=true")};
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0) fputs(kUsage, stdout);
    if (strncmp(argv[i], "--rows=", 7) == 0) {
      file = argv[i] + 7;
    } else if (strncmp(argv[i], "--cpu=", 6) == 0) {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(atoi(argv[i] + 6), &one);
      if (sched_setaffinity(0, sizeof(one), &one) != 0) return perror("sched_setaffinity"), 1;
    } else {
      arguments.push_back(argv[i]);
    }
  }
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);

  std::string json;
  for (const Row& row : rows()) {
    const double value = collector.figure(row.of, row.metric);
    if (!std::isfinite(value)) continue;  // filtered out
    const double floor = row.floor.empty() ? NAN : collector.figure(row.floor, row.metric);
    const double ratio = value / floor;
    const bool reached = met(row.target, row.floor.empty() ? value : ratio);
    printf("%-60s %12s %-6s floor %12s  ratio %8s  %s%s\n", row.name.c_str(), number(value).c_str(),
           row.unit.c_str(), number(floor).c_str(), number(ratio).c_str(), shown(row.target).c_str(),
           reached ? "" : "  MISSED");
    json += std::string(json.empty() ? "" : ",\n") + "{\"name\": \"" + row.name + "\", \"unit\": \"" +
            row.unit + "\", \"value\": " + number(value) + ", \"floor\": " + number(floor) +
            ", \"ratio\": " + number(ratio) + ", \"target\": \"" + shown(row.target) +
            "\", \"met\": " + (reached ? "true" : "false") + ", \"plot\": \"" + row.plot +
            "\", \"x\": " + number(row.x) + "}";
  }
  if (!file.empty()) std::ofstream(file) << "[" << json << "]\n";
  return collector.failed() ? 1 : 0;
}
