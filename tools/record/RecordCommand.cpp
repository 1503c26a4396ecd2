#include <fmt/format.h>
#include <sys/signalfd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

#include "base/descriptor.h"
#include "tools/record/CommandOptions.h"
#include "tools/record/Commands.h"
#include "tools/record/SocketRelay.h"

namespace record {
namespace {

const char kAbout[] =
    "Passes everything between applications and a service on, and writes it down as pcapng:\n"
    "wireshark/tarnbooster.lua shows it, `tarnbooster replay` sends it again";

const char kFooter[] =
    "\nApplications use the name of --as in place of the service's. Ends with SIGINT or SIGTERM; the file "
    "is\n"
    "whole at any moment. The service sees this program as the client, and so refuses to bind threads of "
    "the\n"
    "application.\n"
    "\nExamples:\n"
    "  tarnbooster --socket tarnbooster record --as recorded --write session.pcapng\n"
    "  tarnbooster record --as recorded --write - | wireshark -k -i - -X "
    "lua_script:wireshark/tarnbooster.lua\n"
    "\nExit codes:\n"
    "  0  ended by a signal, and everything is in the file\n"
    "  2  the options are wrong, or the name of --as is in use\n"
    "  7  the file could not take everything; what it has is whole\n";

void say(const std::string& line) {
  fprintf(stderr, "tarnbooster: %s\n", line.c_str());
}

/// Blocks the signals that end a recording and makes them readable.
shared::UniqueFd endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // of --write - into a pipe
  signal(SIGXFSZ, SIG_IGN);  // a file that may grow no more is an error like a full disk
  return shared::UniqueFd(keepAboveStdio(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK)));
}

int record(const client::Target& target, const RecordOptions& options) {
  const shared::UniqueFd end = endSignals();
  RecordingFile file;
  Recorder recorder(file, say);
  SocketRelay relay(target.name, recorder);
  std::string problem;
  // The name first: an older recording is not to be replaced for nothing.
  if (!relay.start(options.as, problem)) return cli::fail(cli::EXIT_USAGE, problem);
  if (!file.create(options.file, problem)) return cli::fail(cli::EXIT_OUTPUT, problem);
  if (!options.quiet)
    say(fmt::format("recording @{} -> {} into {}", options.as, target.text(), options.file));
  if (!end || !relay.run(end.get())) {
    return cli::fail(cli::EXIT_OUTPUT, "no descriptors left: raise the limit (ulimit -n)");
  }
  const Counts& counts = recorder.counts();
  if (!options.quiet) {
    say(fmt::format("{} requests and {} replies over {} connections{} in {}", counts.requests, counts.replies,
                    counts.connections, file.isComplete() ? "" : ", not all of them", options.file));
  }
  return file.isComplete() ? cli::EXIT_ANSWERED : cli::EXIT_OUTPUT;
}

}  // namespace

void addRecord(CLI::App& app, cli::Program& program, RecordOptions& options) {
  CLI::App* const sub = app.add_subcommand("record", kAbout);
  sub->fallthrough();
  sub->footer(kFooter);
  sub->add_option("--as", options.as, "The abstract name to listen on instead of the service's")
      ->type_name("NAME")
      ->required();
  sub->add_option("--write", options.file, "The recording; an older file is replaced (-: standard output)")
      ->type_name("FILE.pcapng")
      ->required();
  sub->add_flag("-q,--quiet", options.quiet, "Say nothing but what is wrong");
  sub->callback([&] {
    if (!options.as.empty() && options.as[0] == '@') options.as.erase(0, 1);
    program.run = [&] {
      if (!program.target.isUdp()) return record(program.target, options);
      return cli::fail(cli::EXIT_USAGE, "record needs a service on a local socket: give --socket");
    };
  });
}

}  // namespace record
