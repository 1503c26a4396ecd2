#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>

#include "tools/record/CommandOptions.h"
#include "tools/record/Commands.h"
#include "tools/record/Replayer.h"

namespace record {
namespace {

const char kAbout[] =
    "Sends the requests of a recording again, each connection over one of its own, and compares the\n"
    "answers with the recorded ones";

const char kFooter[] =
    "\nAn answer belongs to its request by function identifier and time stamp. Compared are its status and\n"
    "its body, and the order of the answers; pushes one by one. Not compared: when something came, and the\n"
    "word of the header that the library does not use. With --fast a push that is missing is no difference:\n"
    "the service had less time.\n"
    "\nExamples:\n"
    "  tarnbooster --socket tarnbooster replay session.pcapng\n"
    "  tarnbooster --udp 127.0.0.1:4711 replay --fast session.pcapng\n"
    "\nExit codes (of several that apply, the highest):\n"
    "  0  all answers are as recorded\n"
    "  1  an answer differs\n"
    "  2  the options are wrong\n"
    "  3  no service is there\n"
    "  4  an answer (or push) that was recorded has not come\n"
    "  5  the service has closed a connection, or takes no more\n"
    "  6  what came is no reply, or the file is no whole recording\n"
    "  7  the output could not be written\n";

void showProgress(size_t sent, size_t all) {
  fprintf(stderr, "tarnbooster: %zu of %zu requests sent\n", sent, all);
}

int exitCode(const ReplayResult& result) {
  if (result.broken || !result.fileProblem.empty()) return cli::EXIT_BROKEN;
  if (result.lost) return cli::EXIT_LOST;
  if (result.missing > 0) return cli::EXIT_NO_ANSWER;
  if (result.noService) return cli::EXIT_NO_SERVICE;
  return result.differences > 0 ? cli::EXIT_REFUSED : cli::EXIT_ANSWERED;
}

int replay(const cli::Program& program, const ReplayCommandOptions& options) {
  Replayer replayer(
      program.target, {options.fast, program.how.answerWithinMs},
      [](const std::string& line) { printf("%s\n", line.c_str()); },
      options.quiet ? [](size_t, size_t) {} : showProgress);
  std::string problem;
  const ReplayResult result = replayer.run(options.file, problem);
  if (!problem.empty()) return cli::fail(cli::EXIT_BROKEN, problem);
  if (!result.fileProblem.empty()) {
    cli::fail(cli::EXIT_BROKEN,
              options.file + ": " + result.fileProblem + "; what stands before was replayed");
  }
  if (!options.quiet) {
    printf("%zu requests over %zu connections: %zu answers and %zu pushes compared, %zu differences\n",
           result.requests, result.connections, result.answers, result.pushes, result.differences);
  }
  return fflush(stdout) == 0 && ferror(stdout) == 0 ? exitCode(result) : cli::EXIT_OUTPUT;
}

}  // namespace

void addReplay(CLI::App& app, cli::Program& program, ReplayCommandOptions& options) {
  CLI::App* const sub = app.add_subcommand("replay", kAbout)->group("Recording");
  sub->fallthrough();
  sub->footer(kFooter);
  sub->add_option("file", options.file, "A recording of `tarnbooster record`")
      ->type_name("FILE.pcapng")
      ->required();
  sub->add_flag("--fast", options.fast, "One request behind the other (default: each at its time)");
  sub->add_flag("-q,--quiet", options.quiet, "Print differences alone");
  sub->callback([&] { program.run = [&] { return replay(program, options); }; });
}

void addCommands(CLI::App& app, cli::Program& program) {
  static RecordOptions recordOptions;
  static ReplayCommandOptions replayOptions;
  addRecord(app, program, recordOptions);
  addReplay(app, program, replayOptions);
}

}  // namespace record
