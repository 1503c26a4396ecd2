#include "tools/cli/Lines.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>

#include "base/descriptor.h"
#include "shared/Text.h"
#include "shared/Usage.h"

namespace cli {
namespace {

constexpr size_t kMaxLine = size_t{16} << 20;  // bytes; a request cannot be longer

/// Standard input in lines, each waited for by the session.
class Input {
 public:
  explicit Input(Session& session) : m_session(session) {}

  /// False at the end of the input, or when code() is no longer EXIT_ANSWERED.
  bool next(std::string& line) {
    size_t end = 0;
    while ((end = m_bytes.find('\n')) == std::string::npos && !m_atEnd) {
      if (!fill()) return false;
    }
    if (m_bytes.empty()) return false;
    end = std::min(end, m_bytes.size());
    line = m_bytes.substr(0, end);
    m_bytes.erase(0, end + 1);
    return true;
  }
  int code() const { return m_code; }

 private:
  bool fill() {
    m_code = m_session.idle(STDIN_FILENO);
    if (m_code != EXIT_ANSWERED) return false;
    char bytes[64 * 1024];
    const ssize_t count = retryEintr([&] { return read(STDIN_FILENO, bytes, sizeof(bytes)); });
    if (count < 0 || m_bytes.size() > kMaxLine) {
      m_code = fail(EXIT_USAGE, count < 0 ? "cannot read standard input: " + shared::errorText(errno)
                                          : "a line of more than 16 MiB");
      return false;
    }
    m_bytes.append(bytes, static_cast<size_t>(count));
    m_atEnd = count == 0;
    return true;
  }

  Session& m_session;
  std::string m_bytes;
  bool m_atEnd = false;
  int m_code = EXIT_ANSWERED;
};

int runLine(const std::string& line, int number, HowTo how, Session& session) {
  CLI::App app("A request as on the command line, one on each line.", "");
  Arguments arguments;
  arguments.inputIsTaken = true;
  addHowTo(app, how);
  app.add_option_function<std::string>("request", [&](const std::string& text) { refuseWord(app, text); })
      ->group("");
  app.require_subcommand(0, 1);
  for (const Request& request : requests()) addRequest(app, request, arguments);
  setUsage(app, "[OPTIONS] REQUEST [OPTIONS]");
  try {
    app.parse(line, false);
  } catch (const CLI::Success&) {
    return writeOut(app.help()) ? EXIT_ANSWERED : EXIT_OUTPUT;
  } catch (const CLI::ParseError& error) {
    return fail(EXIT_USAGE, fmt::format("line {}: {}", number, shared::usageProblem(app, error)));
  }
  for (const Request& request : requests()) {
    if (app.got_subcommand(request.name)) {
      return session.request(request.funcid, request.body(arguments), how);
    }
  }
  return fail(EXIT_USAGE, fmt::format("line {}: no request is given", number));
}

}  // namespace

int runLines(const Program& program, Session& session) {
  Input input(session);
  int worst = EXIT_ANSWERED;
  std::string line;
  for (int number = 1; worst < EXIT_LOST && input.next(line); ++number) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    worst = std::max(worst, runLine(line, number, program.how, session));
  }
  return std::max(worst, input.code());
}

}  // namespace cli
