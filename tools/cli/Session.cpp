#include "tools/cli/Session.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "base/clock.h"
#include "wire/Funcid.h"

namespace cli {
namespace {

using client::Event;
using client::steadyMs;
using client::steadyUs;

constexpr int64_t kProgressMs = 200;
constexpr size_t kMostOpen = 100000;  // requests without an answer

volatile sig_atomic_t g_interrupted = 0;

/// While it lives, Ctrl-C is noticed instead of ending the program.
class InterruptWatch {
 public:
  explicit InterruptWatch(bool watch) : m_watch(watch) {
    struct sigaction action {};
    action.sa_handler = [](int) { g_interrupted = 1; };
    if (m_watch) sigaction(SIGINT, &action, &m_before);
  }
  ~InterruptWatch() {
    if (!m_watch) return;
    sigaction(SIGINT, &m_before, nullptr);
    if (g_interrupted != 0) raise(SIGINT);
  }

 private:
  const bool m_watch;
  struct sigaction m_before {};
};

}  // namespace

ExitCode Session::request(uint16_t funcid, const std::string& body, const HowTo& how) {
  const InterruptWatch watch(how.summary);
  m_quiet = how.summary;
  m_summary = {};
  m_open.clear();
  const int64_t start = steadyMs();
  for (int i = 0; i < how.repeat && mayGoOn(); ++i) {
    if (how.summary) showProgress(how.repeat);
    send(funcid, body, how);
    if (how.intervalMs < 0) {
      // Without a summary the first request that is not answered ends it.
      if (!finish(how) && !how.summary) break;
    } else if (i + 1 < how.repeat) {
      stay(start + (i + 1) * how.intervalMs);
      // A service that does not keep up slows the tool down, rather than fills its memory.
      if (m_open.size() >= kMostOpen) finish(how);
    }
  }
  finish(how);
  if (how.waitMs > 0) stay(start + how.waitMs);
  if (how.summary) {
    if (isatty(STDERR_FILENO) != 0) fputs("\r\033[K", stderr);
    m_output.summary(m_summary);
  }
  return exitCode();
}

void Session::send(uint16_t funcid, const std::string& body, const HowTo& how) {
  const int64_t timestamp = how.timestamp.value_or(nowUs() * 1000);
  m_open.emplace(std::pair(funcid, timestamp), steadyUs());
  ++m_summary.sent;
  m_connection.send(client::packRequest(funcid, body, static_cast<uint32_t>(how.tid), timestamp));
  if (!m_quiet) m_output.sent(funcid, body.size(), timestamp);
}

/// Waits for the answers to all requests. What is not answered in time is counted as lost; false then.
bool Session::finish(const HowTo& how) {
  const int64_t end = steadyMs() + how.answerWithinMs;
  while (!m_open.empty() && steadyMs() < end && work(end)) continue;
  const bool all = m_open.empty();
  m_summary.lost += m_open.size();
  m_open.clear();
  return all;
}

bool Session::mayGoOn() const {
  return m_condition == Condition::GOOD && m_output.isGood() && g_interrupted == 0;
}

/// Handles events until the deadline, the watched descriptor or the answer to the last open request. Whether
/// it makes sense to go on.
bool Session::work(int64_t deadlineMs, int watched) {
  const bool waiting = !m_open.empty();
  while (mayGoOn()) {
    client::Reply reply;
    switch (m_connection.next(reply, deadlineMs, watched)) {
      case Event::REPLY:
        receive(reply);
        if (waiting && m_open.empty()) return mayGoOn();
        break;
      case Event::CLOSED:
        m_condition = Condition::LOST;
        break;
      case Event::BROKEN:
        m_condition = Condition::BROKEN;
        break;
      case Event::GIVEN_UP:
        m_condition = Condition::GIVEN_UP;
        break;
      case Event::WATCHED:
      case Event::TIME_OUT:
        return true;
      case Event::INTERRUPTED:
        break;
    }
  }
  return false;
}

/// Handles events until then, answered or not.
void Session::stay(int64_t untilMs) {
  while (work(untilMs) && steadyMs() < untilMs) continue;
}

void Session::receive(const client::Reply& reply) {
  if (reply.isPush()) return m_output.push(reply);
  const auto open = m_open.find({reply.header.funcid, reply.header.timestamp});
  if (open == m_open.end()) {
    // The empty reply that a service puts between two pushes says nothing.
    const bool separator = reply.header.funcid == FUNCID_REGISTER_ANR_CALLBACK && reply.header.status == 0;
    if (!separator && !m_quiet) m_output.reply(reply, -1);
    return;
  }
  const int64_t took = steadyUs() - open->second;
  m_open.erase(open);
  m_summary.tookUs.push_back(took);
  if (reply.header.status != 0) ++m_summary.refused;
  if (!m_quiet) m_output.reply(reply, took);
}

ExitCode Session::idle(int watched) {
  m_summary = {};
  m_open.clear();
  m_quiet = false;
  work(INT64_MAX, watched);
  return exitCode();
}

void Session::showProgress(int total) {
  if (isatty(STDERR_FILENO) == 0 || steadyMs() < m_progressAt) return;
  m_progressAt = steadyMs() + kProgressMs;
  fmt::print(stderr, "\r\033[K{} of {} requests, {} lost", m_summary.sent, total, m_summary.lost);
  fflush(stderr);
}

ExitCode Session::exitCode() const {
  const auto fail = [](ExitCode code, const std::string& problem) {
    fmt::print(stderr, "tarnbooster: {}\n", problem);
    return code;
  };
  if (!m_output.isGood()) return EXIT_OUTPUT;
  if (m_condition == Condition::BROKEN) {
    return fail(EXIT_BROKEN, fmt::format("{} breaks the protocol: {}", m_service, m_connection.problem()));
  }
  if (m_condition == Condition::LOST)
    return fail(EXIT_LOST, fmt::format("the service at {} has closed the connection", m_service));
  if (m_condition == Condition::GIVEN_UP)
    return fail(EXIT_NO_ANSWER, fmt::format("no answer from {}: it does not acknowledge", m_service));
  if (m_summary.lost > 0) return fail(EXIT_NO_ANSWER, fmt::format("no answer from {}", m_service));
  return m_summary.refused > 0 ? EXIT_REFUSED : EXIT_ANSWERED;
}

}  // namespace cli
