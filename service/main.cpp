// tarnbooster-service: the life of the process.
#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "service/Options.h"
#include "service/core/SteadyClock.h"
#include "service/server/Systemd.h"
#include "shared/LibraryLog.h"
#include "shared/Manual.h"
#include "shared/Usage.h"

namespace {

using service::Options;

const char kAbout[] =
    "A reference performance service. It listens for applications that use libtarnbooster, says on\n"
    "standard output what each of them asks for, does what a Linux machine can do about it, and answers.\n"
    "Stop it with Ctrl-C: everything it has set is put back.\n";

service::Server* g_server = nullptr;  // for the signal handlers; set before they are installed

void onStopSignal(int /*signal*/) {
  const int kept = errno;
  g_server->stop();
  errno = kept;
}

void onReportSignal(int /*signal*/) {
  const int kept = errno;
  g_server->report();
  errno = kept;
}

void handle(std::initializer_list<int> signals, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  for (const int signal : signals) sigaction(signal, &action, nullptr);
}

void installSignals() {
  struct sigaction before {};
  const bool staysUp = sigaction(SIGHUP, nullptr, &before) == 0 && before.sa_handler == SIG_IGN;  // nohup
  handle({SIGINT, SIGTERM, SIGQUIT}, onStopSignal);
  if (!staysUp) handle({SIGHUP}, onStopSignal);
  handle({SIGUSR1}, onReportSignal);
  handle({SIGPIPE}, SIG_IGN);  // a log reader that goes away must not take the service along
}

/// Each client takes three descriptors; the usual soft limit is for programs that use select().
void raiseDescriptorLimit() {
  constexpr rlim_t kWanted = 4096;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted) return;
  limit.rlim_cur = std::min(limit.rlim_max, kWanted);
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// Where the record goes when nobody has said it; empty for nowhere.
std::string defaultRecord(const std::string& name) {
  // NOLINTBEGIN(concurrency-mt-unsafe): there is no other thread yet
  const char *const given = getenv("RUNTIME_DIRECTORY"), *const own = getenv("XDG_RUNTIME_DIR");
  // NOLINTEND(concurrency-mt-unsafe)
  std::string folder;
  if (given != nullptr) {
    folder = std::string(given).substr(0, std::string(given).find(':'));
  } else if (geteuid() == 0) {
    folder = "/run/tarnbooster";
  } else if (own != nullptr && own[0] == '/') {
    folder = std::string(own) + "/tarnbooster";
  }
  if (folder.empty()) return "";
  mkdir(folder.c_str(), 0755);
  std::string file;
  for (const char c : name.empty() ? "udp" : name) {
    file += isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-'
                ? std::string(1, c)
                : fmt::format("_{:02x}", static_cast<unsigned char>(c));
  }
  return fmt::format("{}/{}.record", folder, file.substr(0, 200));
}

/// Opens the record. One that was asked for must be had; the default one is a bonus. False when it cannot.
bool openRecord(const Options& options, service::Record& record, const service::Log& log,
                std::string& problem) {
  const std::string path = options.record.value_or(defaultRecord(options.server.name));
  if (path.empty() || record.open(path, problem)) return true;
  if (options.record) return false;
  log.warning("no record is kept, so that after a SIGKILL nothing is put back: " + problem);
  problem.clear();
  return true;
}

int program(int argc, char** argv) {
  CLI::App app(kAbout, "tarnbooster-service");
  Options options;
  describeOptions(app, options);
  shared::addManual(app, 8, "tarnbooster(1)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    fprintf(stderr, "tarnbooster-service: %s (--help tells more)\n",
            shared::usageProblem(app, error).c_str());
    return 2;
  }
  std::string problem;
  shared::UniqueFd listener = service::socketFromSystemd(options.server.name, problem);
  if (problem.empty()) problem = optionsProblem(options);
  if (!problem.empty()) {
    fprintf(stderr, "tarnbooster-service: %s\n", problem.c_str());
    return 2;
  }

  raiseDescriptorLimit();
  // The library's own log is for its developers; what went wrong is in the service's lines.
  if (options.most != service::Priority::DEBUG) shared::silenceLibraryLog();
  service::LineWriter writer(STDOUT_FILENO, options.lines.value_or(service::lineStyleFor(STDOUT_FILENO)));
  const service::Log log(options.most, [&writer](service::Priority priority, const std::string& line) {
    writer.put(priority, line);
  });
  service::Record record;
  bool started = openRecord(options, record, log, problem);
  service::Dispatcher dispatcher(options.policy, log, options.boostLimits, &record);
  service::Server server(std::move(options.server), dispatcher, log);
  g_server = &server;
  installSignals();
  if (started) dispatcher.putBack(record, service::steadyMs());
  started = started && server.start(problem, std::move(listener));
  if (!started) {
    fprintf(stderr, "tarnbooster-service: %s\n", problem.c_str());
    return 1;
  }
  service::notifySystemd("READY=1\nSTATUS=serves");
  server.run();
  service::notifySystemd("STOPPING=1");
  handle({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1}, SIG_IGN);  // there is no server any more to tell
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
