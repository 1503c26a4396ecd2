#include "tools/check/CheckCommand.h"

#include <fmt/format.h>
#include <fnmatch.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>

#include "shared/Text.h"
#include "shared/Usage.h"
#include "tools/check/Check.h"
#include "tools/check/Reports.h"
#include "tools/check/SelfTest.h"
#include "tools/cli/Values.h"

namespace check {
namespace {

const char kAbout[] =
    "Examines any service: numbered cases, each with what was sent, what was expected and what came";

const char kFooter[] =
    "\n--socket or --udp names the service; --json prints an object for each case.\n"
    "\nA case passes, fails, is skipped when it cannot be tried, or passes with notes: the service does\n"
    "something else than the reference service, which is lawful. Effects are tried on a thread of this\n"
    "program. Cases that may harm the service or its other clients need --destructive. Over UDP, where\n"
    "datagrams get lost, a case that fails is tried again, twice; one that passes then has a note.\n"
    "--answer-within is 2000 here unless given, over UDP 4000.\n"
    "\n--self-test examines the checker instead: each case is tried on small services of its own, one that "
    "is\n"
    "right and one or more that do one thing wrong. A line for each says whether the case noticed; a "
    "failure\n"
    "means that the checker cannot be relied on here.\n"
    "\nExamples:\n"
    "  tarnbooster check --socket demo\n"
    "  tarnbooster check --udp 127.0.0.1:4711 --brief\n"
    "  tarnbooster check 'framing.*' answers.in-order 12 --skip '*.large-body'\n"
    "  tarnbooster check --strict --junit check.xml\n"
    "  tarnbooster check --list\n"
    "  tarnbooster check --self-test --brief\n"
    "\nExit codes: 0 no case has failed, 1 one has (or, with --strict, has notes), 2 wrong options,\n"
    "3 no service is there, 7 the output could not be written. With --self-test: 0 every case found what it\n"
    "is there for, 1 one did not.\n";

/// Longer than the transport tries to deliver a datagram.
constexpr int64_t kUdpAnswerMs = 4000;

struct Options {
  Settings settings;
  std::vector<std::string> chosen, skipped;
  std::string junit;
  bool list = false, strict = false, brief = false, selfTest = false;
};

bool matches(const std::vector<std::string>& patterns, int number, const char* name) {
  return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
    return pattern == std::to_string(number) || fnmatch(pattern.c_str(), name, 0) == 0;
  });
}

/// Throws for a pattern that is no case's: nobody may believe that it was tried.
void refuseUnknown(const std::vector<std::string>& patterns) {
  std::vector<std::string> names;
  for (const Case& known : allCases()) names.emplace_back(known.name);
  for (const std::string& pattern : patterns) {
    bool found = false;
    for (size_t i = 0; i < names.size() && !found; ++i) {
      found = matches({pattern}, static_cast<int>(i) + 1, names[i].c_str());
    }
    if (found) continue;
    throw CLI::ValidationError(fmt::format("there is no case \"{}\"{}", shared::printable(pattern),
                                           shared::suggestion(pattern, names)));
  }
}

/// The numbers of the cases that are meant; those of the other transport are left out unless they are listed.
std::vector<int> choose(const Options& options) {
  std::vector<int> numbers;
  const unsigned transport = options.settings.target.isUdp() ? UDP : LOCAL;
  for (int number = 1; number <= static_cast<int>(allCases().size()); ++number) {
    const Case& which = allCases()[static_cast<size_t>(number - 1)];
    if (!options.chosen.empty() && !matches(options.chosen, number, which.name)) continue;
    if (matches(options.skipped, number, which.name)) continue;
    const bool all = options.list || options.selfTest;
    if (!all && (which.flags & transport) == 0) continue;
    if (!all && (which.flags & DESTRUCTIVE) != 0 && !options.settings.destructive) continue;
    numbers.push_back(number);
  }
  return numbers;
}

int list(const Options& options) {
  std::string text;
  for (const int number : choose(options)) {
    const Case& which = allCases()[static_cast<size_t>(number - 1)];
    text += fmt::format("{:3} {:28} {:13} {}\n{:46}{}\n", number, which.name,
                        (which.flags & DESTRUCTIVE) != 0 ? "--destructive"
                        : (which.flags & BOTH) == BOTH   ? "both"
                        : (which.flags & BOTH) == LOCAL  ? "--socket"
                                                         : "--udp",
                        which.sends, "", which.expects);
  }
  return cli::writeOut(text) ? cli::EXIT_ANSWERED : cli::EXIT_OUTPUT;
}

void showProgress(const Case& which, size_t done, size_t all) {
  if (isatty(STDERR_FILENO) == 0) return;
  fmt::print(stderr, "\r\033[K{}/{} {}", done + 1, all, which.name);
  fflush(stderr);
}

void endProgress() {
  if (isatty(STDERR_FILENO) != 0) fputs("\r\033[K", stderr);
}

int failToWrite(const std::string& path) {
  return cli::fail(cli::EXIT_OUTPUT, "cannot write " + path + ": " + shared::errorText(errno));
}

/// What is to be run, one after the other: cases on a service, or trials of the checker.
struct Step {
  const Case* which;
  std::function<Result()> run;
};

std::vector<Step> stepsOf(const Options& options, const std::vector<int>& numbers) {
  std::vector<Step> steps;
  for (const int number : numbers) {
    if (options.selfTest) {
      for (const Trial& trial : allTrials()) {
        if (trial.number == number) steps.push_back({&trial.shown, [&trial] { return runTrial(trial); }});
      }
      continue;
    }
    const Case& which = allCases()[static_cast<size_t>(number - 1)];
    steps.push_back(
        {&which, [&which, &options, number] { return runCase(number, which, options.settings); }});
  }
  return steps;
}

int run(Options& options, const cli::Program& program) {
  if (options.list) return list(options);
  options.settings.target = program.target;
  const std::vector<Step> steps = stepsOf(options, choose(options));
  if (steps.empty())
    return cli::fail(cli::EXIT_USAGE, "no case is left to try: --list shows all, and what each needs");
  if (!options.selfTest) {
    std::string problem;
    if (client::connectTo(program.target, problem) == nullptr)
      return cli::fail(cli::EXIT_NO_SERVICE, problem);
    survey(options.settings);
  }
  std::ofstream junit;
  if (!options.junit.empty()) junit.open(options.junit);
  if (!junit) return failToWrite(options.junit);  // before all the work
  std::vector<Result> results;
  Totals totals;
  bool written = true;
  const int64_t start = client::steadyMs();
  for (const Step& step : steps) {
    showProgress(*step.which, results.size(), steps.size());
    results.push_back(step.run());
    totals.add(results.back().verdict);
    endProgress();
    const Result& result = results.back();
    written = cli::writeOut(program.json ? jsonOf(result)
                                         : textOf(result, options.brief, options.selfTest ? 46 : 28)) &&
              written;
  }
  const int64_t took = client::steadyMs() - start;
  const char* const what = options.selfTest ? "trials" : "cases";
  written = cli::writeOut(program.json ? jsonOf(totals, took) : textOf(totals, took, what)) && written;
  if (!options.junit.empty()) {
    junit << junitOf(results, options.selfTest ? "--self-test" : program.target.text(), options.strict);
    junit.close();
    if (!junit) return failToWrite(options.junit);
  }
  if (!written) return cli::EXIT_OUTPUT;
  return totals.failed > 0 || (options.strict && totals.noted > 0) ? cli::EXIT_REFUSED : cli::EXIT_ANSWERED;
}

}  // namespace

void addCheckCommand(CLI::App& app, cli::Program& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = app.add_subcommand("check", kAbout)->group("Examining a service");
  Settings& settings = options->settings;
  sub->footer(kFooter);
  sub->fallthrough();
  sub->add_option("case", options->chosen,
                  "Names or numbers of cases; * and ? stand for others (default: all)")
      ->type_name("CASE");
  sub->add_option("--skip", options->skipped, "Leave these cases out; may be repeated")
      ->type_name("CASE")
      ->allow_extra_args(false);
  sub->add_flag("--list", options->list, "List the cases, and try none");
  sub->add_flag("--self-test", options->selfTest,
                "Prove the checker: does each case notice a service that is wrong?");
  sub->add_flag("--strict", options->strict, "A case with notes counts as failed");
  sub->add_flag("--brief", options->brief, "One line for each case that passes");
  sub->add_flag("--destructive", settings.destructive,
                "Also try what may harm the service, its clients or the machine");
  sub->add_option("--junit", options->junit, "Write the results as JUnit's XML, too")->type_name("FILE");
  sub->add_option("--clients", settings.clients, "How many clients to be at once")
      ->type_name("N")
      ->capture_default_str()
      ->check(cli::decimal(2, 1000));
  sub->add_option("--push-within", settings.pushWithinMs, "How long to wait for pushes, in milliseconds")
      ->type_name("MS")
      ->capture_default_str()
      ->check(cli::decimal(1, 3600000));
  sub->add_option("--quiet-for", settings.quietMs,
                  "How long to listen for what must not come, in milliseconds")
      ->type_name("MS")
      ->capture_default_str()
      ->check(cli::decimal(1, 60000));
  sub->callback([&app, options, &program] {
    refuseUnknown(options->chosen);
    refuseUnknown(options->skipped);
    if (options->selfTest && app.count("--socket") + app.count("--udp") > 0)
      throw CLI::ValidationError("--self-test tries services of its own: leave --socket and --udp out");
    if (app.count("--udp") > 0) options->settings.answerWithinMs = kUdpAnswerMs;
    if (app.count("--answer-within") > 0) options->settings.answerWithinMs = program.how.answerWithinMs;
    program.run = [options, &program] { return run(*options, program); };
  });
}

}  // namespace check
