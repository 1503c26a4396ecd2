// tarnbooster: makes one request by hand, over either transport, and shows what comes back.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <future>
#include <string>

#include "Commands.h"
#include "Connection.h"
#include "Replies.h"
#include "base/clock.h"
#include "base/log.h"
#include "shared/Address.h"
#include "shared/LibraryLog.h"

namespace {

using tool::Replies;

enum ExitCode {
  EXIT_ANSWERED = 0,  // every request was answered with status 0
  EXIT_REFUSED = 1,   // at least one was answered with another status
  EXIT_USAGE = 2,     // the options are wrong; nothing was sent
  EXIT_NO_SERVICE = 3,
  EXIT_NO_ANSWER = 4,
  EXIT_LOST = 5,
};

const char kAbout[] =
    "Makes a request to a performance service, as an application does through libtarnbooster, and\n"
    "prints the replies. Name the service by --socket or --udp, and the request as a subcommand.\n";

const char kExamples[] =
    "\nExamples:\n"
    "  tarnbooster --socket demo request-cpu-high-freq --scene 3 --level 2 --timeoutms 1000 --action 5\n"
    "  tarnbooster --socket demo --wait 20000 register-anr-callback\n"
    "  tarnbooster --udp 127.0.0.1:4711 register-boot-preload-resource --file /etc/hosts --file /etc/passwd\n"
    "  tarnbooster request-cpu-core-for-thread --help\n"
    "\nA service undoes a boost when the connection that asked for it ends: give --wait to keep it.\n"
    "\nExit codes:\n"
    "  0  answered with status 0        3  no service there\n"
    "  1  answered with another status  4  not answered in time\n"
    "  2  wrong options                 5  the connection was lost\n";

constexpr int64_t kAnswerMs = 2000;  // how long an answer is waited for without --wait

struct Options {
  std::string socket;
  std::string udp;
  sockaddr_in udpAddress{};  // what `udp` says
  int32_t tid = 0;
  int64_t timestamp = 0;  // nanoseconds
  int64_t waitMs = -1;    // -1: until answered
  int repeat = 1;
  bool verbose = false;
  tool::Arguments arguments;
};

void describeOptions(CLI::App& app, Options& options) {
  app.footer(kExamples);
  app.fallthrough();
  auto* const where = app.add_option_group("where", "The service (one of them)");
  where->add_option("--socket", options.socket, "Its abstract socket name")->type_name("NAME");
  where->add_option("--udp", options.udp, "Its IPv4 address and port")->type_name("ADDRESS:PORT");
  where->require_option(1);
  app.add_option("--tid", options.tid, "Thread id that the request bears (default: this program's)");
  app.add_option("--timestamp", options.timestamp,
                 "Time stamp that the request bears, in nanoseconds (default: now)");
  app.add_option("--wait", options.waitMs,
                 "Stay for so many milliseconds and print replies and pushes as they come\n"
                 "(default: until every request is answered, 2000 at most)")
      ->type_name("MS")
      ->check(CLI::Range(int64_t{1}, int64_t{86400000}));
  app.add_option("--repeat", options.repeat, "Make the request so many times")
      ->type_name("N")
      ->check(CLI::Range(1, 1000000));
  app.add_flag("-v,--verbose", options.verbose, "Show the library's log, too");
  app.require_subcommand(1);
  for (const tool::Command& command : tool::commands()) {
    CLI::App* const sub = app.add_subcommand(command.name, command.about);
    sub->fallthrough();
    for (const auto addOption : command.options) addOption(*sub, options.arguments);
  }
}

std::shared_ptr<IClientEngine> connect(const Options& options, Replies& replies) {
  if (options.udp.empty()) return tool::connectSocket(options.socket, &replies);
  return tool::connectUdp(options.udpAddress, &replies);
}

/// Sends all requests, counting them in `sent`. False when the connection was lost over it. May wait for good
/// for a service that takes nothing.
bool sendRequests(const Options& options, const tool::Command& command, IClientEngine& engine,
                  Replies& replies, bool ownTimestamp, std::atomic<int>& sent) {
  const std::string body = command.body(options.arguments);
  const auto* const bytes = reinterpret_cast<const uint8_t*>(body.data());
  for (int i = 0; i < options.repeat; ++i) {
    const int64_t timestamp = ownTimestamp ? options.timestamp : nowUs() * 1000;
    replies.expect(timestamp);
    const int64_t sendTime =
        engine.sendReq(command.funcid, body.empty() ? nullptr : bytes, static_cast<uint32_t>(body.size()),
                       static_cast<uint32_t>(options.tid), timestamp);
    if (sendTime < 1 || !engine.isRunning()) return false;
    printf("sent %d %s, %zu bytes, timestamp %" PRId64 "\n", command.funcid, command.name, body.size(),
           timestamp);
    fflush(stdout);
    ++sent;
  }
  return true;
}

/// sendRequests() on a thread of its own. Ends the program when none is taken for as long as an answer may
/// take.
bool sendRequestsInTime(const Options& options, const tool::Command& command, IClientEngine& engine,
                        Replies& replies, bool ownTimestamp, const std::string& service) {
  std::atomic<int> sent{0};
  auto sending = std::async(std::launch::async, [&] {
    return sendRequests(options, command, engine, replies, ownTimestamp, sent);
  });
  const std::chrono::milliseconds patience(std::max<int64_t>(options.waitMs, kAnswerMs));
  for (int before = -1; sending.wait_for(patience) != std::future_status::ready;) {
    const int now = sent;
    if (now == before) {
      fprintf(stderr, "tarnbooster: %s takes no more requests; %d of %d were sent\n", service.c_str(), now,
              options.repeat);
      fflush(nullptr);
      _exit(EXIT_NO_ANSWER);  // the thread waits in the engine, and would for ever
    }
    before = now;
  }
  return sending.get();
}

/// Waits as the options say: for the answers, or for the whole time. False when the connection was lost.
bool wait(const Options& options, IClientEngine& engine, Replies& replies) {
  constexpr int64_t kLookMs = 50;  // at the connection, which does not tell when it ends
  const bool whole = options.waitMs > 0;
  const int64_t end = nowMs() + (whole ? options.waitMs : kAnswerMs);
  for (int64_t left = 0; (left = end - nowMs()) > 0;) {
    if (!whole && replies.waitForAll(std::min(left, kLookMs))) return true;
    if (whole) usleep(static_cast<useconds_t>(std::min(left, kLookMs) * 1000));
    if (!engine.isRunning()) return !whole && replies.allHaveCome();
  }
  return true;
}

int fail(ExitCode code, const std::string& problem) {
  fprintf(stderr, "tarnbooster: %s\n", problem.c_str());
  return code;
}

int run(const Options& options, const tool::Command& command, bool ownTimestamp) {
  const std::string service = options.udp.empty() ? "@" + options.socket : "udp " + options.udp;
  // The engine's thread may look at it until the very end of the process: never freed.
  static auto& replies = *new Replies(command.funcid);
  const auto engine = connect(options, replies);
  if (engine == nullptr) return fail(EXIT_NO_SERVICE, "no service at " + service + ": is it running?");
  const bool connected = sendRequestsInTime(options, command, *engine, replies, ownTimestamp, service) &&
                         wait(options, *engine, replies);
  if (replies.anyRefused()) return EXIT_REFUSED;
  if (!connected) return fail(EXIT_LOST, "the service at " + service + " has closed the connection");
  if (!replies.allHaveCome()) return fail(EXIT_NO_ANSWER, "no answer from " + service);
  return EXIT_ANSWERED;
}

int program(int argc, char** argv) {
  CLI::App app(kAbout, "tarnbooster");
  Options options;
  options.tid = static_cast<int32_t>(gettid());
  describeOptions(app, options);
  try {
    app.parse(argc, argv);
    if (!options.udp.empty() &&
        (!shared::parseAddress(options.udp, options.udpAddress) || options.udpAddress.sin_port == 0)) {
      throw CLI::ValidationError("--udp", "\"" + options.udp + "\" is no IPv4 address and port");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
  }
  if (options.verbose) {
    setDebugLogging(true);
  } else {
    shared::silenceLibraryLog();
  }
  for (const tool::Command& command : tool::commands()) {
    if (app.got_subcommand(command.name)) return run(options, command, app.count("--timestamp") > 0);
  }
  return EXIT_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return program(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "tarnbooster: %s\n", error.what());
    return EXIT_USAGE;
  }
}
