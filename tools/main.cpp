// tarnbooster: asks a performance service by hand, and examines it.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "base/log.h"
#include "shared/LibraryLog.h"
#include "shared/Manual.h"
#include "shared/Usage.h"
#include "tools/check/CheckCommand.h"
#include "tools/cli/Holds.h"
#include "tools/cli/Program.h"
#include "tools/record/Commands.h"

namespace {

const char kAbout[] =
    "Makes requests to a performance service, as an application does through libtarnbooster, prints what\n"
    "comes back, and examines services. Name the service by --socket or --udp. With - in place of a\n"
    "subcommand it reads requests line by line from standard input and makes them over one connection.\n";

const char kExamples[] =
    "\nExamples:\n"
    "  tarnbooster request-cpu-high-freq --scene 3 --level 2 --timeoutms 1000 --action 5\n"
    "  tarnbooster --socket demo --wait 20000 register-anr-callback\n"
    "  tarnbooster --repeat 10000 --summary check-permission\n"
    "  tarnbooster --udp 127.0.0.1:4711 register-boot-preload-resource --file /etc/hosts --file /etc/passwd\n"
    "  tarnbooster request-cpu-core-for-thread --help\n"
    "\nA service undoes a boost when the connection that asked for it ends: give --wait to keep it, or make\n"
    "several requests over one connection:\n"
    "  { echo request-cpu-core-for-thread --bindtids self --timeout 60000\n"
    "    sleep 5; echo cancel-cpu-core-for-thread --bindtids self; } | tarnbooster -\n";

/// The service that the options name, or the environment, or nobody.
std::string findTarget(const std::string* socket, const std::string& udp, client::Target& target) {
  if (!udp.empty()) return client::parseUdp(udp, target);
  if (socket != nullptr) return client::parseName(*socket, target);
  const char* const named = getenv("TARNBOOSTER_SOCKET");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return client::parseName(named != nullptr && *named != '\0' ? named : cli::kDefaultName, target);
}

int program(int argc, char** argv) {
  CLI::App app(kAbout, "tarnbooster");
  app.fallthrough();
  app.set_version_flag("--version", "tarnbooster " TARNBOOSTER_VERSION, "Print the version and exit");
  cli::Program program;
  cli::Arguments arguments;
  std::string socket, udp;
  constexpr char kWhere[] = "The service (one of them)";
  auto* const named = app.add_option("--socket", socket,
                                     "Its abstract socket name, with or without an '@' in front\n"
                                     "(default: $TARNBOOSTER_SOCKET, or \"tarnbooster\")")
                          ->type_name("NAME")
                          ->group(kWhere);
  app.add_option("--udp", udp, "Its IPv4 address and port")
      ->type_name("ADDRESS:PORT")
      ->group(kWhere)
      ->excludes(named);
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, "Show the log of the UDP transport, too");
  cli::addRequests(app, program, arguments);
  check::addCheckCommand(app, program);
  cli::addHolds(app, program);
  record::addCommands(app, program);
  app.footer(std::string(kExamples) + cli::kExitCodes);  // now, so that the subcommands do not inherit it
  cli::setUsage(app, "tarnbooster [OPTIONS] SUBCOMMAND [OPTIONS]\n       tarnbooster [OPTIONS] -");
  shared::addManual(app, 1, "tarnbooster-service(8)");
  try {
    app.parse(argc, argv);
    if (program.run == nullptr)
      throw CLI::ValidationError("no subcommand is given: as a first try, tarnbooster check-permission");
    const bool isNamed = app.count("--socket") > 0;
    const std::string problem = app.count("--udp") > 0 && udp.empty()
                                    ? "--udp is empty"
                                    : findTarget(isNamed ? &socket : nullptr, udp, program.target);
    if (!problem.empty()) throw CLI::ValidationError(problem);
  } catch (const CLI::Success& asked) {
    app.exit(asked);
    return fflush(stdout) == 0 && ferror(stdout) == 0 ? cli::EXIT_ANSWERED : cli::EXIT_OUTPUT;
  } catch (const CLI::ParseError& error) {
    return cli::fail(cli::EXIT_USAGE, shared::usageProblem(app, error) + " (--help tells more)");
  }
  if (verbose) {
    setDebugLogging(true);
  } else {
    shared::silenceLibraryLog();
  }
  return program.run();
}

}  // namespace

int cli::fail(ExitCode code, const std::string& problem) {
  fprintf(stderr, "tarnbooster: %s\n", problem.c_str());
  return code;
}

int main(int argc, char** argv) {
  try {
    return program(argc, argv);
  } catch (const std::exception& error) {
    return cli::fail(cli::EXIT_USAGE, error.what());
  }
}
