// tarnbooster-service: the options, and the life of the process.
#include <grp.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "service/core/Log.h"
#include "service/server/Server.h"
#include "shared/Address.h"
#include "shared/LibraryLog.h"
#include "shared/Manual.h"
#include "shared/Text.h"

namespace {

using service::Policy;
using service::Push;
using service::ServerOptions;
using service::Verbosity;
using shared::parseNumber;

const char kAbout[] =
    "A reference performance service. It listens for applications that use libtarnbooster, says on\n"
    "standard output what each of them asks for, does what a Linux machine can do about it, and answers.\n"
    "Stop it with Ctrl-C: everything it has set is put back.\n";

const char kExamples[] =
    "\nTry it:\n"
    "  tarnbooster-service --name tarnbooster --push-every 5:7:hello\n"
    "  tarnbooster --socket tarnbooster --wait 20000 register-anr-callback     (in another terminal)\n"
    "\nExit codes: 0 stopped by SIGINT or SIGTERM, 1 could not start, 2 wrong options.\n";

/// Cuts "HEAD:REST" off `text` at its first colon; throws what CLI11 reports when there is none.
std::string cutField(std::string& text, const char* option) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) throw CLI::ValidationError(option, "a ':' is missing in \"" + text + "\"");
  std::string field = text.substr(0, colon);
  text.erase(0, colon + 1);
  return field;
}

int64_t numberOf(const std::string& text, int64_t least, int64_t most, const char* option) {
  int64_t number = 0;
  if (shared::parseNumber(text, least, most, number)) return number;
  throw CLI::ValidationError(
      option, "\"" + text + "\" is no number from " + std::to_string(least) + " to " + std::to_string(most));
}

Push pushOf(std::string text, const char* option) {
  const std::string code = cutField(text, option);
  return {static_cast<int32_t>(numberOf(code, INT32_MIN, INT32_MAX, option)), text};
}

service::RepeatedPush repeatedPushOf(std::string text, const char* option) {
  const std::string seconds = cutField(text, option);
  double value = 0;
  if (!CLI::detail::lexical_cast(seconds, value) || !(value >= 0.001 && value <= 86400)) {
    throw CLI::ValidationError(option, "\"" + seconds + "\" is no time from 0.001 to 86400 seconds");
  }
  return {pushOf(text, option), std::llround(value * 1000), 0};
}

struct Options {
  ServerOptions server;
  Policy policy;
  Verbosity verbosity = Verbosity::NORMAL;
};

void describeOptions(CLI::App& app, Options& options) {
  app.footer(kExamples);
  app.add_option("--name", options.server.name, "Abstract socket name to listen on, at most 107 bytes")
      ->type_name("NAME");
  app.add_option_function<std::string>(
         "--udp",
         [&options](const std::string& text) {
           if (!shared::parseAddress(text, options.server.udp.emplace())) {
             throw CLI::ValidationError("--udp", "\"" + text + "\" is no IPv4 address and port");
           }
         },
         "Listen on this IPv4 address and port too; there nobody can be told from anybody else")
      ->type_name("ADDRESS:PORT");
  app.add_option_function<std::vector<std::string>>(
         "--status",
         [&options](const std::vector<std::string>& texts) {
           for (const std::string& text : texts) {
             const size_t equals = text.find('=');
             if (equals == std::string::npos) {
               throw CLI::ValidationError("--status", "a '=' is missing in \"" + text + "\"");
             }
             const auto funcid = numberOf(text.substr(0, equals), 0, 65535, "--status");
             const auto status = numberOf(text.substr(equals + 1), INT32_MIN, UINT32_MAX, "--status");
             options.policy.scriptedStatus[static_cast<uint16_t>(funcid)] = static_cast<uint32_t>(status);
           }
         },
         "Answer a request with this status and do nothing, as in 1002=5; may be repeated")
      ->type_name("FUNCID=STATUS");
  app.add_option_function<std::vector<std::string>>(
         "--push-on-register",
         [&options](const std::vector<std::string>& texts) {
           for (const auto& text : texts)
             options.server.onRegister.push_back(pushOf(text, "--push-on-register"));
         },
         "Push this to a client when it registers (request 1010); may be repeated")
      ->type_name("CODE:TEXT");
  app.add_option_function<std::vector<std::string>>(
         "--push-every",
         [&options](const std::vector<std::string>& texts) {
           for (const auto& text : texts)
             options.server.repeat.push_back(repeatedPushOf(text, "--push-every"));
         },
         "Push this to every registered client, again and again; may be repeated")
      ->type_name("SECONDS:CODE:TEXT");
  app.add_flag("--allow-terminate", options.policy.allowTerminate,
               "Let request 1012 end the client that makes it (SIGTERM)");
  auto* const quiet = app.add_flag_callback(
      "-q,--quiet", [&options] { options.verbosity = Verbosity::QUIET; }, "Say only what goes wrong");
  app.add_flag_callback(
         "-v,--verbose", [&options] { options.verbosity = Verbosity::VERBOSE; },
         "Say also who connects and disconnects, and what the transport logs")
      ->excludes(quiet);
}

service::Server* g_server = nullptr;  // for the signal handler; set before it is installed

void onStopSignal(int /*signal*/) {
  const int kept = errno;
  g_server->stop();
  errno = kept;
}

void installSignals() {
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  action.sa_handler = SIG_IGN;  // a log reader that goes away must not take the service along
  sigaction(SIGPIPE, &action, nullptr);
}

int program(int argc, char** argv) {
  CLI::App app(kAbout, "tarnbooster-service");
  Options options;
  describeOptions(app, options);
  shared::addManual(app, 8, "tarnbooster(1)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  if (options.server.name.empty() && !options.server.udp) {
    fputs("tarnbooster-service: nowhere to listen: give --name NAME, or --udp ADDRESS:PORT, or both\n",
          stderr);
    return 2;
  }

  // Root's supplementary groups would show through when files are looked at with a client's rights.
  if (geteuid() == 0) setgroups(0, nullptr);
  if (options.verbosity != Verbosity::VERBOSE) {
    // The library's own log is for its developers; what went wrong is in the service's lines.
    shared::silenceLibraryLog();
  }
  const service::Log log(options.verbosity, service::standardOutput());
  service::Dispatcher dispatcher(options.policy, log);
  service::Server server(options.server, dispatcher, log);
  g_server = &server;
  installSignals();
  std::string problem;
  if (!server.start(problem)) {
    fprintf(stderr, "tarnbooster-service: %s\n", problem.c_str());
    return 1;
  }
  server.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return program(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "tarnbooster-service: %s\n", error.what());
    return 1;
  }
}
