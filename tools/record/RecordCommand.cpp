#include <fmt/format.h>
#include <sys/signalfd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

#include "base/descriptor.h"
#include "shared/Address.h"
#include "tools/record/CommandOptions.h"
#include "tools/record/Commands.h"
#include "tools/record/SocketRelay.h"
#include "tools/record/UdpRelay.h"
#include "udp/udp_packet.h"

namespace record {
namespace {

const char kAbout[] =
    "Passes everything between applications and a service on, and writes it down as pcapng:\n"
    "Wireshark shows it with tarnbooster.lua, `tarnbooster replay` sends it again";

const char kFooter[] =
    "\nApplications use what --as names in place of the service's. Ends with SIGINT, SIGTERM or SIGHUP;\n"
    "the file is whole at any moment. The service sees this program as the client, and so refuses to bind\n"
    "threads of the application.\n"
    "\nExamples:\n"
    "  tarnbooster --socket tarnbooster record --as recorded --write session.pcapng\n"
    "  tarnbooster --udp 127.0.0.1:4711 record --as-udp 127.0.0.1:4712 --write session.pcapng\n"
    "  tarnbooster record --as recorded --write - |\n"
    "    wireshark -k -i - -X lua_script:/usr/share/tarnbooster/tarnbooster.lua\n"
    "tarnbooster.lua lies in the folder share/tarnbooster of the installation, or in wireshark of the "
    "sources.\n"
    "\nExit codes:\n"
    "  0  ended by a signal, and everything is in the file\n"
    "  2  the options are wrong, or what --as names is in use\n"
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
  sigaddset(&signals, SIGHUP);  // the terminal is closed
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // of --write - into a pipe
  signal(SIGXFSZ, SIG_IGN);  // a file that may grow no more is an error like a full disk
  return shared::UniqueFd(keepAboveStdio(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK)));
}

/// Records what passes a relay that is ready, until a signal. `where`: between whom.
template <class Relay>
int record(Relay& relay, Recorder& recorder, const RecordOptions& options, const std::string& where,
           int end) {
  RecordingFile& file = recorder.file();
  std::string problem;
  if (!file.create(options.file, problem)) return cli::fail(cli::EXIT_OUTPUT, problem);
  if (!options.quiet) say(fmt::format("recording {} into {}", where, options.file));
  if (end < 0 || !relay.run(end)) {
    return cli::fail(cli::EXIT_OUTPUT, "no descriptors left: raise the limit (ulimit -n)");
  }
  return file.isComplete() ? cli::EXIT_ANSWERED : cli::EXIT_OUTPUT;
}

/// "in FILE", or why not quite.
std::string outcome(const Recorder& recorder, const RecordOptions& options) {
  return (recorder.file().isComplete() ? "in " : "not all of them in ") + options.file;
}

int recordSocket(const client::Target& target, const RecordOptions& options) {
  const shared::UniqueFd end = endSignals();
  RecordingFile file;
  Recorder recorder(file, say);
  SocketRelay relay(target.name, recorder);
  std::string problem;
  // The name first: an older recording is not to be replaced for nothing.
  if (!relay.start(options.as, problem)) return cli::fail(cli::EXIT_USAGE, problem);
  const int code = record(relay, recorder, options, "@" + options.as + " -> " + target.text(), end.get());
  const Counts& counts = recorder.counts();
  if (!options.quiet && counts.connections > 0) {
    say(fmt::format("{} requests and {} replies over {} connections, {}", counts.requests, counts.replies,
                    counts.connections, outcome(recorder, options)));
  }
  return code;
}

int recordUdp(const client::Target& target, const RecordOptions& options) {
  const shared::UniqueFd end = endSignals();
  RecordingFile file;
  Recorder recorder(file, say);
  UdpRelay relay(target.udp, recorder);
  sockaddr_in as{};
  std::string problem;
  if (!shared::parseAddress(options.asUdp, as)) {
    return cli::fail(cli::EXIT_USAGE,
                     "--as-udp: \"" + options.asUdp + "\" is no IPv4 address and port, as in 127.0.0.1:4712");
  }
  if (!relay.start(as, problem)) return cli::fail(cli::EXIT_USAGE, problem);
  const std::string where = "udp " + addressText(relay.address()) + " -> " + target.text();
  const int code = record(relay, recorder, options, where, end.get());
  const Counts& counts = recorder.counts();
  if (!options.quiet && counts.connections > 0) {
    say(fmt::format("{} datagrams of {} applications and {} of the service, {}", counts.requests,
                    counts.connections, counts.replies, outcome(recorder, options)));
  }
  return code;
}

}  // namespace

void addRecord(CLI::App& app, cli::Program& program, RecordOptions& options) {
  CLI::App* const sub = app.add_subcommand("record", kAbout)->group("Recording");
  sub->fallthrough();
  sub->footer(kFooter);
  constexpr char kAs[] = "Where applications turn to instead (one of them)";
  auto* const as =
      sub->add_option("--as", options.as, "An abstract name, with --socket")->type_name("NAME")->group(kAs);
  sub->add_option("--as-udp", options.asUdp, "An IPv4 address and port, with --udp")
      ->type_name("ADDRESS:PORT")
      ->group(kAs)
      ->excludes(as);
  sub->add_option("--write", options.file, "The recording; an older file is replaced (-: standard output)")
      ->type_name("FILE.pcapng")
      ->required();
  sub->add_flag("-q,--quiet", options.quiet, "Say nothing but what is wrong");
  sub->callback([&] {
    if (options.as.empty() && options.asUdp.empty()) {
      throw CLI::ValidationError("--as (or, with --udp, --as-udp) says where applications turn to instead");
    }
    if (!options.as.empty() && options.as[0] == '@') options.as.erase(0, 1);
    program.run = [&] {
      if (program.target.isUdp() != options.as.empty()) {
        return cli::fail(cli::EXIT_USAGE, "--as goes with --socket, and --as-udp with --udp");
      }
      return program.target.isUdp() ? recordUdp(program.target, options)
                                    : recordSocket(program.target, options);
    };
  });
}

}  // namespace record
