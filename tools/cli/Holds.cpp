#include "tools/cli/Holds.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "base/clock.h"
#include "shared/Text.h"
#include "tools/cli/Output.h"
#include "tools/cli/Values.h"

namespace cli {
namespace {

using Json = nlohmann::json;

constexpr char kDefaultFile[] = "/run/tarnbooster/state.json";
constexpr int kWatchMs = 250;
constexpr int64_t kVersion = 1;

const char kFooter[] =
    "\nThe service keeps the file with --state-file. --json prints it as it is.\n"
    "\nExamples:\n"
    "  tarnbooster holds\n"
    "  tarnbooster holds --state-file /tmp/state.json --watch\n"
    "\nExit codes: 0 shown, 2 wrong options, 3 no such file (is the service running?), 6 it is not what it\n"
    "should be, 7 the output could not be written.\n";

struct Options {
  std::string file = kDefaultFile;
  bool watch = false;
};

using Row = std::array<std::string, 7>;
const Row kHead = {"WHO", "WHAT", "WAS", "IS", "REQUEST", "LEVEL", "LEFT"};

std::string text(const Json& object, const char* field) {
  return shared::printable(object.at(field).get<std::string>());
}

/// "best-effort 4", of class << 13 and a level.
std::string ioPriority(int64_t value) {
  static const char* const kClasses[] = {"none", "realtime", "best-effort", "idle"};
  const int64_t priority = value >> 13;
  if (priority < 0 || priority > 3) return std::to_string(value);
  const bool hasLevel = priority == 1 || priority == 2;
  return kClasses[priority] + (hasLevel ? fmt::format(" {}", value & 8191) : std::string());
}

/// The values in a list, each once: "400000" or "400000-600000 kHz".
std::string range(const Json& list, const char* field) {
  int64_t least = INT64_MAX, most = INT64_MIN;
  for (const Json& entry : list) {
    least = std::min(least, entry.at(field).get<int64_t>());
    most = std::max(most, entry.at(field).get<int64_t>());
  }
  if (list.empty()) return "";
  return least == most ? fmt::format("{} kHz", least) : fmt::format("{}-{} kHz", least, most);
}

/// What is changed, what it was and what it is.
void describe(const Json& setting, Row& row) {
  const std::string what = text(setting, "what");
  if (what == "affinity") {
    row[1] = fmt::format("CPUs of thread {}", setting.at("tid").get<int64_t>());
    row[2] = text(setting, "original");
    row[3] = text(setting, "applied");
  } else if (what == "io") {
    const Json& threads = setting.at("threads");
    row[1] = fmt::format("I/O of {} threads of {}", threads.size(), setting.at("pid").get<int64_t>());
    row[2] = threads.empty() ? "" : ioPriority(threads[0].at("original").get<int64_t>());
    row[3] = ioPriority(setting.at("applied").get<int64_t>());
  } else if (what == "frequency") {
    row[1] = fmt::format("frequency of {} CPUs", setting.at("cpus").size());
    row[2] = range(setting.at("cpus"), "original");
    row[3] = range(setting.at("cpus"), "applied");
  } else {
    row[1] = text(setting, "key");
  }
}

std::string whoIs(const Json& state, const Json& id) {
  for (const Json& client : state.at("clients")) {
    if (client.at("id") == id) return text(client, "name");
  }
  return "a forgotten client";
}

std::vector<Row> rowsOf(const Json& state) {
  std::vector<Row> rows;
  for (const Json& setting : state.at("settings")) {
    Row row;
    describe(setting, row);
    for (const Json& boost : setting.at("boosts")) {
      row[0] = whoIs(state, boost.at("client"));
      row[4] = fmt::format("{} {}", boost.at("request").get<int64_t>(), text(boost, "requestName"));
      row[5] = std::to_string(boost.at("level").get<int64_t>());
      const Json& until = boost.at("expiresAtMs");
      row[6] =
          until.is_null()
              ? "until cancelled"
              : fmt::format("{:.1f} s",
                            static_cast<double>(std::max<int64_t>(until.get<int64_t>() - nowMs(), 0)) / 1000);
      rows.push_back(row);
    }
    if (setting.at("boosts").empty()) {
      row[0] = "nobody: is to be put back";
      rows.push_back(row);
    }
  }
  return rows;
}

/// The state as a table. Throws what the JSON library throws when it is not what it should be.
std::string tableOf(const Json& state) {
  if (state.at("version") != kVersion) throw std::runtime_error("it is of a later version");
  std::vector<Row> rows = rowsOf(state);
  std::string table =
      fmt::format("service {}: {} clients, {} settings changed\n", state.at("pid").get<int64_t>(),
                  state.at("clients").size(), state.at("settings").size());
  if (rows.empty()) return table;
  rows.insert(rows.begin(), kHead);
  std::array<size_t, kHead.size()> widths{};
  for (const Row& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const Row& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) line += fmt::format("{:{}}  ", row[i], widths[i]);
    table += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return table;
}

/// Reads and formats the file. `shown` is what to print, or what is wrong; `raw` is what the file holds.
ExitCode look(const std::string& path, bool json, std::string& shown, std::string& raw) {
  raw.clear();
  std::vector<std::string> lines;
  const std::string problem = readLines(path, lines);
  if (!problem.empty()) {
    shown = problem + "; does the service run, with --state-file?";
    return EXIT_NO_SERVICE;
  }
  for (const std::string& line : lines) raw += line + "\n";
  try {
    const Json state = Json::parse(raw);
    shown = tableOf(state);
    if (json) shown = state.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    return EXIT_ANSWERED;
  } catch (const Json::parse_error&) {
    shown = shared::printable(path) + " is no state of a service: it is no JSON";
    return EXIT_BROKEN;
  } catch (const std::exception& error) {
    shown = fmt::format("{} is no state of a service: {}", shared::printable(path), error.what());
    return EXIT_BROKEN;
  }
}

int run(const Options& options, bool json) {
  const bool live = options.watch && isatty(STDOUT_FILENO) != 0 && !json;
  std::string last = "none yet";
  do {
    std::string shown, raw;
    const ExitCode code = look(options.file, json, shown, raw);
    // A watch outlives its service: it is there again after the next start.
    if (code != EXIT_ANSWERED && !options.watch) return fail(code, shown);
    if (code != EXIT_ANSWERED) shown += "\n";
    if (live) shown.insert(0, "\033[H\033[2J");
    // In a terminal the times go on; elsewhere only news is worth a line.
    if ((live || raw != last) && !writeOut(shown)) return EXIT_OUTPUT;
    last = raw;
  } while (options.watch && poll(nullptr, 0, kWatchMs) == 0);
  return EXIT_ANSWERED;
}

}  // namespace

void addHolds(CLI::App& app, Program& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub =
      app.add_subcommand("holds", "Shows who holds what at the moment, from the service's state file")
          ->group("Examining a service");
  sub->footer(kFooter);
  sub->fallthrough();
  sub->add_option("--state-file", options->file, "The file that the service keeps")
      ->type_name("PATH")
      ->capture_default_str();
  sub->add_flag("--watch", options->watch, "Go on: live in a terminal, otherwise whenever something changes");
  sub->callback(
      [options, &program] { program.run = [options, &program] { return run(*options, program.json); }; });
}

}  // namespace cli
