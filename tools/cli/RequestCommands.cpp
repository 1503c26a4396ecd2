// The requests as subcommands of the program.
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "shared/Text.h"
#include "shared/Usage.h"
#include "tools/cli/Lines.h"
#include "tools/cli/Program.h"
#include "tools/cli/Values.h"

namespace cli {
namespace {

constexpr char kGroup[] = "Options of requests";
constexpr int64_t kDayMs = 86400000;

class UsageFormatter : public CLI::Formatter {
 public:
  explicit UsageFormatter(std::string usage) : m_usage(std::move(usage)) {}
  std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
    return "\nUsage: " + m_usage + "\n\n";
  }

 private:
  const std::string m_usage;
};

/// Connects and lets `work` go on. Returns its exit code, or the one for no service.
int withSession(const Program& program, const std::function<int(Session&)>& work) {
  std::string problem;
  const auto connection = client::connectTo(program.target, problem);
  if (connection == nullptr) return fail(EXIT_NO_SERVICE, problem);
  Output output(program.json);
  Session session(*connection, output, program.target.text());
  return work(session);
}

}  // namespace

void refuseWord(const CLI::App& app, const std::string& text) {
  std::vector<std::string> names;
  for (const CLI::App* const sub : app.get_subcommands({})) names.push_back(sub->get_name());
  const auto given = app.get_subcommands();
  const std::string word = shared::printable(text);
  if (given.empty()) {
    throw CLI::ValidationError(
        fmt::format("there is no subcommand \"{}\"{}", word, shared::suggestion(text, names)));
  }
  const std::string& first = given.front()->get_name();
  const bool second = std::find(names.begin(), names.end(), text) != names.end();
  throw CLI::ValidationError(
      second || text == "-"
          ? fmt::format("{} and {}: one at a time (alone, - reads requests line by line)", first, word)
          : fmt::format("\"{}\" does not belong to {}", word, first));
}

void setUsage(CLI::App& app, const std::string& usage) {
  app.formatter(std::make_shared<UsageFormatter>(usage));
}

void addHowTo(CLI::App& app, HowTo& how) {
  how.tid = how.tid == 0 ? static_cast<int32_t>(gettid()) : how.tid;
  app.add_option("--tid", how.tid, "Thread id that the request bears (default: this program's)")
      ->type_name("TID")
      ->group(kGroup)
      ->check(decimal<int32_t>());
  app.add_option_function<int64_t>(
         "--timestamp", [&how](int64_t timestamp) { how.timestamp = timestamp; },
         "Time stamp that the request bears, in nanoseconds (default: now)")
      ->type_name("NS")
      ->group(kGroup)
      ->check(decimal<int64_t>());
  app.add_option("--answer-within", how.answerWithinMs,
                 "How long an answer may take, in milliseconds; then it counts as lost")
      ->type_name("MS")
      ->group(kGroup)
      ->capture_default_str()
      ->check(decimal(1, kDayMs));
  app.add_option("--wait", how.waitMs,
                 "Stay for so many milliseconds and print replies and pushes as they come\n"
                 "(default: until every request is answered)")
      ->type_name("MS")
      ->group(kGroup)
      ->check(decimal(1, kDayMs));
  auto* const repeat = app.add_option("--repeat", how.repeat,
                                      "Make the request so many times, each when the one before is answered")
                           ->type_name("N")
                           ->group(kGroup)
                           ->check(decimal(1, 100000000));
  app.add_option("--interval", how.intervalMs,
                 "With --repeat: make a request every so many milliseconds, answered or not")
      ->type_name("MS")
      ->group(kGroup)
      ->check(decimal(0, kDayMs))
      ->needs(repeat);
  app.add_flag("--summary", how.summary,
               "With --repeat: print the times of all answers together (median, 99th percentile, lost)")
      ->group(kGroup)
      ->needs(repeat);
}

void addRequests(CLI::App& app, Program& program, Arguments& arguments) {
  addHowTo(app, program.how);
  app.add_flag("--json", program.json, "Print one JSON object a line");
  for (const Request& request : requests()) {
    addRequest(app, request, arguments).callback([&] {
      program.run = [&] {
        return withSession(program, [&](Session& session) {
          return session.request(request.funcid, request.body(arguments), program.how);
        });
      };
    });
  }
  // Everything that is no subcommand arrives here, misspelt ones, too.
  app.add_option_function<std::string>(
         "lines",
         [&](const std::string& text) {
           if (text != "-" || !app.get_subcommands().empty()) refuseWord(app, text);
           program.run = [&] {
             return withSession(program, [&](Session& session) { return runLines(program, session); });
           };
         })
      ->group("");
  app.require_subcommand(0, 1);
}

}  // namespace cli
