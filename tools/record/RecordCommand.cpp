#include "tools/record/RecordCommand.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>

#include "base/descriptor.h"
#include "shared/Address.h"
#include "shared/Text.h"
#include "tools/record/SocketRelay.h"

namespace record {
namespace {

const char kAbout[] =
    "Passes everything between applications and a service on, and writes it down as pcapng\n"
    "(wireshark/tarnbooster.lua shows it, `tarnbooster replay` sends it again)";

const char kFooter[] =
    "\nApplications use the name of --as in place of the service's. Ends with SIGINT or SIGTERM.\n"
    "The service sees this program as the client: it refuses to bind an application's threads.\n"
    "\nExamples:\n"
    "  tarnbooster record --socket tarnbooster --as recorded --write session.pcapng\n"
    "  tarnbooster record --socket tarnbooster --as recorded --write - | wireshark -k -i - \\\n"
    "      -X lua_script:wireshark/tarnbooster.lua\n"
    "\nExit codes:\n"
    "  0  ended by a signal; the file has everything\n"
    "  1  cannot start: the name is in use, or the file cannot be written\n"
    "  2  wrong options\n"
    "  5  the file could not take everything; what it has is whole\n";

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
  return shared::UniqueFd(keepAboveStdio(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK)));
}

}  // namespace

CLI::App* addRecordCommand(CLI::App& app, RecordOptions& options) {
  CLI::App* const sub = app.add_subcommand("record", kAbout);
  sub->footer(kFooter);
  auto* const socket = sub->add_option("--socket", options.socket, "The service's abstract socket name");
  auto* const as = sub->add_option("--as", options.as, "The abstract name to listen on instead");
  socket->type_name("NAME")->needs(as);
  as->type_name("OTHER")->needs(socket);
  sub->add_option("--write", options.file, "The recording; an existing file is replaced (-: standard output)")
      ->type_name("FILE.pcapng")
      ->required();
  sub->add_flag("-q,--quiet", options.quiet, "Say nothing but errors");
  return sub;
}

int runRecord(const RecordOptions& options) {
  const shared::UniqueFd end = endSignals();
  RecordingFile file;
  Recorder recorder(file, say);
  SocketRelay relay(options.socket, recorder);
  std::string problem;
  // The name first: a recording is not to be replaced for nothing.
  if (!end || !relay.start(options.as, problem) || !file.create(options.file, problem)) {
    say(end ? problem : "no descriptors left: raise the limit (ulimit -n)");
    return RECORD_CANNOT;
  }
  if (!options.quiet) say("recording @" + options.as + " -> @" + options.socket + " into " + options.file);
  if (!relay.run(end.get())) {
    say("no descriptors left: raise the limit (ulimit -n)");
    return RECORD_CANNOT;
  }
  const Counts& counts = recorder.counts();
  if (!options.quiet) {
    say(std::to_string(counts.requests) + " requests and " + std::to_string(counts.replies) + " replies of " +
        std::to_string(counts.connections) + " connections passed" +
        (file.isComplete() ? " and are in " : "; not all are in ") + options.file);
  }
  return file.isComplete() ? RECORD_WHOLE : RECORD_INCOMPLETE;
}

}  // namespace record
