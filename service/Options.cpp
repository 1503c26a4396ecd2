#include "service/Options.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

#include <cmath>
#include <vector>

#include "shared/AbstractSocket.h"
#include "shared/Address.h"
#include "shared/Text.h"

namespace service {
namespace {

const char kExamples[] =
    "\nTry it:\n"
    "  tarnbooster-service --name tarnbooster --push-every 5:7:hello\n"
    "  tarnbooster --socket tarnbooster --wait 20000 register-anr-callback     (in another terminal)\n"
    "\nSignals:\n"
    "  SIGINT, SIGTERM, SIGQUIT, and SIGHUP save below nohup: everything is put back, and it ends\n"
    "  SIGUSR1: says who holds what\n"
    "\nExit codes:\n"
    "  0  stopped by a signal\n"
    "  1  could not start\n"
    "  2  wrong options\n";

/// Cuts "HEAD:REST" off `text` at its first colon; throws what CLI11 reports when there is none.
std::string cutField(std::string& text, const char* option) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) {
    throw CLI::ValidationError(option, fmt::format("a ':' is missing in \"{}\"", text));
  }
  std::string field = text.substr(0, colon);
  text.erase(0, colon + 1);
  return field;
}

int64_t numberOf(const std::string& text, int64_t least, int64_t most, const char* option) {
  int64_t number = 0;
  if (shared::parseNumber(text, least, most, number)) return number;
  throw CLI::ValidationError(option, fmt::format("\"{}\" is no number from {} to {}", text, least, most));
}

Push pushOf(std::string text, const char* option) {
  const std::string code = cutField(text, option);
  return {static_cast<int32_t>(numberOf(code, INT32_MIN, INT32_MAX, option)), text};
}

RepeatedPush repeatedPushOf(std::string text, const char* option) {
  const std::string seconds = cutField(text, option);
  double value = 0;
  if (!CLI::detail::lexical_cast(seconds, value) || !(value >= 0.001 && value <= 86400)) {
    throw CLI::ValidationError(option, fmt::format("\"{}\" is no time from 0.001 to 86400 seconds", seconds));
  }
  return {pushOf(text, option), std::llround(value * 1000), 0};
}

/// "1002=-5": an identifier, and what an application gets as its status.
std::pair<uint16_t, uint32_t> statusOf(const std::string& text, const char* option) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos) {
    throw CLI::ValidationError(option, fmt::format("a '=' is missing in \"{}\"", text));
  }
  return {static_cast<uint16_t>(numberOf(text.substr(0, equals), 0, 65535, option)),
          static_cast<uint32_t>(numberOf(text.substr(equals + 1), INT32_MIN, INT32_MAX, option))};
}

uint32_t idOf(const std::string& text, const char* what, const char* option) {
  int64_t number = 0;
  if (shared::parseNumber(text, 0, UINT32_MAX - 1, number)) return static_cast<uint32_t>(number);
  throw CLI::ValidationError(option,
                             fmt::format("\"{}\" is no {} of this machine, and no number", text, what));
}

// Names are looked up before any other thread is there.
// NOLINTBEGIN(concurrency-mt-unsafe)
uid_t userOf(const std::string& text, const char* option) {
  const passwd* const found = getpwnam(text.c_str());
  return found != nullptr ? found->pw_uid : idOf(text, "user", option);
}

gid_t groupOf(const std::string& text, const char* option) {
  const group* const found = getgrnam(text.c_str());
  return found != nullptr ? found->gr_gid : idOf(text, "group", option);
}
// NOLINTEND(concurrency-mt-unsafe)

/// An option that may be repeated, each value read by `take`.
template <class Take>
CLI::Option* repeated(CLI::App& app, const char* name, const char* type, const std::string& help, Take take) {
  return app
      .add_option_function<std::vector<std::string>>(
          name,
          [take](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) take(text);
          },
          help + "; may be repeated")
      ->type_name(type)
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void describeWhere(CLI::App& app, Options& options) {
  app.add_option_function<std::string>(
         "--name", [&options](const std::string& text) { options.server.name = shared::bareName(text); },
         "Abstract socket name to listen on, at most 107 bytes, with or without an '@' in front\n"
         "(or a socket handed over by systemd)")
      ->type_name("NAME");
  app.add_option_function<std::string>(
         "--udp",
         [&options](const std::string& text) {
           if (!shared::parseAddress(text, options.server.udp.emplace())) {
             throw CLI::ValidationError(
                 "--udp", fmt::format("\"{}\" is no IPv4 address and port, as in 127.0.0.1:4711", text));
           }
         },
         "Listen on this IPv4 address and port too; there nobody can be told from anybody else")
      ->type_name("ADDRESS:PORT");
  repeated(app, "--allow-uid", "USER", "Serve only clients of this user, by name or number",
           [&options](const std::string& text) {
             options.server.access.uids.insert(userOf(text, "--allow-uid"));
           });
  repeated(app, "--allow-gid", "GROUP", "Serve only clients in this group, by name or number",
           [&options](const std::string& text) {
             options.server.access.gids.insert(groupOf(text, "--allow-gid"));
           });
  const auto limit = [&app](const char* name, size_t& value, const char* help) {
    app.add_option_function<std::string>(
           name,
           [&value, name](const std::string& text) {
             value = static_cast<size_t>(numberOf(text, 1, 1000000, name));
           },
           fmt::format("{} (default {})", help, value))
        ->type_name("N");
  };
  limit("--clients-per-user", options.server.clientLimits.perUser,
        "Clients of one user at a time, of 256 in all");
  limit("--boosts-per-user", options.boostLimits.perUser, "Boosts that one user may hold, of 16384 in all");
}

void describeAnswers(CLI::App& app, Options& options) {
  repeated(app, "--status", "FUNCID=STATUS", "Answer a request with this status and do nothing, as in 1002=5",
           [&options](const std::string& text) {
             const auto [funcid, status] = statusOf(text, "--status");
             options.policy.scriptedStatus[funcid] = status;
           });
  repeated(app, "--push-on-register", "CODE:TEXT", "Push this to a client when it registers (request 1010)",
           [&options](const std::string& text) {
             options.server.onRegister.push_back(pushOf(text, "--push-on-register"));
           });
  repeated(app, "--push-every", "SECONDS:CODE:TEXT", "Push this to every registered client, again and again",
           [&options](const std::string& text) {
             options.server.repeat.push_back(repeatedPushOf(text, "--push-every"));
           });
  app.add_flag("--allow-terminate", options.policy.allowTerminate,
               "Let request 1012 end the client that makes it (SIGTERM)");
  repeated(
      app, "--fault", "NAME[=VALUE][,...]",
      "Misbehave, for the tests of an application. NAME is one of\n" + faultHelp() +
          "and behind it, separated by commas, when it strikes (every client's requests are counted for\n"
          "themselves):\n"
          "  every=N                 only each Nth time\n"
          "  after=N                 not the first N times\n"
          "  only=FUNCID             only at requests with this identifier\n"
          "  from=MS, for=MS         only from so long after the start, and for so long\n"
          "  chance=PERCENT, seed=S  and then at random, the same for the same seed\n"
          "as in close,after=3 or delay=500,every=2",
      [&options](const std::string& text) {
        Fault fault;
        std::string problem;
        if (!parseFault(text, fault, problem)) throw CLI::ValidationError("--fault", problem);
        options.server.faults.push_back(fault);
      });
}

void describeOutput(CLI::App& app, Options& options) {
  app.add_option("--state-file", options.server.stateFile,
                 "Keep who holds what in this JSON file (tarnbooster holds shows it)")
      ->type_name("PATH");
  app.add_option_function<std::string>(
         "--record", [&options](const std::string& path) { options.record = path; },
         "Note here what boosts have changed, so that the next start puts back what a killed service could\n"
         "not; \"\" for none (default: NAME.record in the runtime folder that systemd gives, in\n"
         "/run/tarnbooster as root, or in $XDG_RUNTIME_DIR/tarnbooster)")
      ->type_name("PATH");
  static const std::map<std::string, LineStyle> kStyles = {
      {"plain", LineStyle::PLAIN}, {"time", LineStyle::TIME}, {"journal", LineStyle::JOURNAL}};
  app.add_option_function<std::string>(
         "--lines",
         [&options](const std::string& text) {
           const auto style = kStyles.find(text);
           if (style == kStyles.end()) {
             throw CLI::ValidationError("--lines", "\"" + text + "\" is none of plain, time, journal");
           }
           options.lines = style->second;
         },
         "What stands in front of a line: nothing (plain), the time, or priorities as systemd's journal\n"
         "takes them (default: journal when it listens, else time)")
      ->type_name("plain|time|journal");
  auto* const quiet = app.add_flag_callback(
      "-q,--quiet", [&options] { options.most = Priority::NOTICE; },
      "Say only where it listens, and what goes wrong");
  app.add_flag_callback(
         "-v,--verbose", [&options] { options.most = Priority::DEBUG; },
         "Say also who connects and disconnects, and what the transport logs")
      ->excludes(quiet);
}

}  // namespace

void describeOptions(CLI::App& app, Options& options) {
  app.footer(kExamples);
  app.set_version_flag("--version", "tarnbooster-service " TARNBOOSTER_VERSION, "Print the version and exit");
  describeWhere(app, options);
  describeAnswers(app, options);
  describeOutput(app, options);
}

std::string optionsProblem(const Options& options) {
  const ServerOptions& server = options.server;
  if (server.name.empty() && !server.udp) {
    return "nowhere to listen: give --name NAME, or --udp ADDRESS:PORT, or both";
  }
  std::string problem = server.name.empty() ? "" : shared::nameProblem(server.name);
  if (!problem.empty()) return problem;
  if (server.udp && !server.access.isOpen()) {
    return "--allow-uid and --allow-gid do not go with --udp: there nobody can be told from anybody else";
  }
  return "";
}

}  // namespace service
