#include "tools/check/Check.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <atomic>

#include "base/clock.h"
#include "tools/cli/Requests.h"
#include "tools/client/LocalConnection.h"
#include "wire/Funcid.h"
#include "wire/protos/amc.pb.h"

namespace check {

using client::Event;
using client::steadyMs;

const char* verdictWord(Verdict verdict) {
  switch (verdict) {
    case Verdict::PASS:
      return "pass";
    case Verdict::NOTE:
      return "note";
    case Verdict::FAIL:
      return "FAIL";
    case Verdict::SKIP:
      return "skip";
  }
  return "";
}

std::string requestText(uint16_t funcid) {
  return fmt::format("{} {}", funcid, cli::requestName(funcid));
}

bool eventually(int64_t ms, const std::function<bool()>& condition) {
  for (const int64_t end = steadyMs() + ms; !condition(); poll(nullptr, 0, 2)) {
    if (steadyMs() >= end) return condition();
  }
  return true;
}

const std::vector<std::pair<uint16_t, std::string>>& gentleRequests() {
  static const auto* const kRequests = [] {
    auto* const made = new std::vector<std::pair<uint16_t, std::string>>;
    cli::Arguments arguments;
    arguments.level = 1;
    arguments.timeoutms = arguments.timeout = 1;
    arguments.uiName = "check";
    arguments.files = {"/nonexistent/tarnbooster-check"};
    for (const cli::Request& request : cli::requests()) {
      if (request.funcid != FUNCID_TERMINATE_APP) made->emplace_back(request.funcid, request.body(arguments));
    }
    return made;
  }();
  return *kRequests;
}

// ---- Check ----------------------------------------------------------------------------------------------

void Check::note(const std::string& text) {
  auto& notes = m_result.notes;
  if (std::find(notes.begin(), notes.end(), text) == notes.end()) notes.push_back(text);
}

std::optional<Talk> Check::tryConnect(std::string& problem) {
  auto connection = client::connectTo(m_settings.target, problem);
  if (connection == nullptr) return std::nullopt;
  return Talk(*this, std::move(connection));
}

Talk Check::connect() {
  std::string problem;
  auto talk = tryConnect(problem);
  if (!talk) fail(problem);
  return std::move(*talk);
}

void Check::alive() {
  std::string problem;
  auto talk = tryConnect(problem);
  if (!talk) fail("afterwards " + problem);
  if (talk->ask(FUNCID_CHECK_PERMISSION) != Fate::ANSWERED) {
    fail("afterwards a new client's 1001 was not answered");
  }
}

// ---- Talk -----------------------------------------------------------------------------------------------

Talk::Talk(Check& check, std::unique_ptr<client::Connection> connection)
    : m_check(&check), m_connection(std::move(connection)) {}

client::LocalConnection& Talk::local() {
  return static_cast<client::LocalConnection&>(*m_connection);
}

std::string Talk::packAt(int64_t timestamp, uint16_t funcid, const std::string& body) {
  m_open.emplace_back(funcid, timestamp);
  if (funcid == FUNCID_REGISTER_ANR_CALLBACK) m_isRegistered = true;
  return client::packRequest(funcid, body, 77, timestamp);
}

std::string Talk::pack(uint16_t funcid, const std::string& body) {
  static std::atomic<int64_t> last{nowUs() * 1000};
  return packAt(++last, funcid, body);
}

/// One event. False when it was the deadline, or the service has hung up.
bool Talk::step(int64_t deadlineMs) {
  client::Reply reply;
  switch (m_connection->next(reply, deadlineMs)) {
    case Event::REPLY:
      receive(reply);
      return true;
    case Event::BROKEN:
      m_check->fail(m_connection->problem());
    case Event::CLOSED:
      m_isClosed = true;
      return false;
    case Event::GIVEN_UP:
      m_check->fail("a datagram that was sent six times was not acknowledged");
    case Event::TIME_OUT:
      return false;
    case Event::WATCHED:
    case Event::INTERRUPTED:
      break;
  }
  return true;
}

bool Talk::send(const std::string& bytes) {
  m_connection->send(bytes);
  size_t left = m_connection->unsent();
  int64_t end = steadyMs() + m_check->settings().answerWithinMs;
  // Reading meanwhile: a service that waits for its replies to be read would never take the rest.
  while (left > 0 && !m_isClosed && steadyMs() < end) {
    step(steadyMs() + 1);
    if (m_connection->unsent() < left) end = steadyMs() + m_check->settings().answerWithinMs;
    left = m_connection->unsent();
  }
  return left == 0 && !m_isClosed;
}

bool Talk::onlySilentOpen() const {
  const auto& silent = m_check->settings().silent;
  return std::all_of(m_open.begin(), m_open.end(),
                     [&](const Open& open) { return silent.count(open.first) != 0; });
}

Fate Talk::settle(int64_t timeoutMs) {
  const int64_t end = steadyMs() + (timeoutMs < 0 ? m_check->settings().answerWithinMs : timeoutMs);
  while (!m_open.empty() && step(end)) continue;
  if (m_open.empty()) return Fate::ANSWERED;
  return m_isClosed ? Fate::CLOSED : Fate::SILENT;
}

void Talk::expectAnswers() {
  const size_t before = m_answers, count = m_open.size();
  const int64_t within = m_check->settings().answerWithinMs;
  int64_t end = steadyMs() + within;
  for (size_t seen = m_answers; !onlySilentOpen() && step(end); seen = m_answers) {
    if (m_answers > seen) end = steadyMs() + within;  // of many, each may take so long
  }
  if (onlySilentOpen()) return m_open.clear();
  m_check->fail(fmt::format(
      "{} of {} answers; {} was not answered {}", m_answers - before, count,
      requestText(m_open.front().first),
      m_isClosed ? "before the service closed the connection" : fmt::format("within {} ms", within)));
}

Fate Talk::ask(uint16_t funcid, const std::string& body, int64_t timeoutMs) {
  send(pack(funcid, body));
  return settle(timeoutMs);
}

uint32_t Talk::mustAsk(uint16_t funcid, const std::string& body) {
  send(pack(funcid, body));
  expectAnswers();
  return m_status;
}

Fate Talk::listen(int64_t ms) {
  for (const int64_t end = steadyMs() + ms; step(end);) continue;
  return m_isClosed ? Fate::CLOSED : Fate::SILENT;
}

void Talk::receive(const client::Reply& reply) {
  if (reply.breaksFraming) {
    m_check->fail(
        fmt::format("a reply {} with a body of {} bytes directly after another body: put a reply "
                    "without a body between",
                    reply.header.funcid, reply.body.size()));
  }
  reply.isPush() ? receivePush(reply) : receiveAnswer(reply);
}

void Talk::receivePush(const client::Reply& reply) {
  amc::DataCallback message;
  if (!message.ParsePartialFromString(reply.body) || !message.IsInitialized()) {
    m_check->fail(fmt::format("a push of {} bytes that is no DataCallback", reply.body.size()));
  }
  if (!m_isRegistered) m_check->fail("a push to a client that has not registered");
  ++m_pushes;
}

void Talk::receiveAnswer(const client::Reply& reply) {
  const uint16_t funcid = reply.header.funcid;
  const Open answered(funcid, reply.header.timestamp);
  const auto found = std::find(m_open.begin(), m_open.end(), answered);
  if (found == m_open.end()) {
    // An empty 1010 stands between two pushes and answers nobody.
    if (funcid == FUNCID_REGISTER_ANR_CALLBACK && reply.header.status == 0 && reply.body.empty()) return;
    const bool again = m_answered.count(answered) != 0;
    if (again && m_check->settings().target.isUdp()) {
      // After the loss of a single datagram the transport delivers the first requests of a peer twice.
      return m_check->note("a request was answered twice");
    }
    m_check->fail(fmt::format("a reply {} with status {} and time stamp {}, which answers {}", funcid,
                              reply.header.status, reply.header.timestamp,
                              again ? "a request for the second time" : "no request"));
  }
  for (auto before = m_open.begin(); before != found; ++before) {
    if (m_check->settings().silent.count(before->first) != 0) continue;
    if (m_check->settings().target.isUdp()) {  // where requests stand alone
      m_check->note("answers come in another order than the requests");
      break;
    }
    m_check->fail(
        fmt::format("the answer to {} (time stamp {}) before that to {} (time stamp {}), which was "
                    "asked first",
                    funcid, answered.second, before->first, before->second));
  }
  m_answered.insert(answered);
  // Those before it that are left open are never answered, or over UDP perhaps later.
  m_check->settings().target.isUdp() ? m_open.erase(found) : m_open.erase(m_open.begin(), found + 1);
  m_status = reply.header.status;
  ++m_answers;
  if (!reply.body.empty()) m_check->note(fmt::format("the answer to {} has a body", requestText(funcid)));
}

// ---- Running --------------------------------------------------------------------------------------------

namespace {

Result runOnce(int number, const Case& which, const Settings& settings) {
  Result result;
  result.number = number;
  result.which = &which;
  result.sent = which.sends;
  const int64_t start = steadyMs();
  try {
    Check check(settings, result);
    which.run(check);
    if (result.came.empty()) result.came = "as expected";
    if (!result.notes.empty()) result.verdict = Verdict::NOTE;
  } catch (const CaseEnded& ended) {
    result.verdict = ended.verdict;
    result.came = ended.came;
  }
  result.tookMs = steadyMs() - start;
  return result;
}

}  // namespace

Result runCase(int number, const Case& which, const Settings& settings) {
  // Networks lose datagrams, and half a second without a turn can end a direction: over UDP a case may fail,
  // and is tried again. What comes and goes is told all the same.
  int left = settings.target.isUdp() ? settings.attempts : 1;
  Result result = runOnce(number, which, settings);
  const std::string first = result.came;
  bool isAgain = false;
  while (result.verdict == Verdict::FAIL && --left > 0) {
    result = runOnce(number, which, settings);
    isAgain = true;
  }
  if (isAgain && (result.verdict == Verdict::PASS || result.verdict == Verdict::NOTE)) {
    result.verdict = Verdict::NOTE;
    result.notes.push_back("it failed at first: " + first);
  }
  return result;
}

void survey(Settings& settings) {
  std::string problem;
  const auto connection = client::connectTo(settings.target, problem);
  if (connection == nullptr) return;
  std::set<uint16_t> silent;
  for (const auto& [funcid, body] : gentleRequests()) {
    connection->send(client::packRequest(funcid, body, 77, 1));
    silent.insert(funcid);
  }
  const size_t all = silent.size();
  const int64_t end = steadyMs() + settings.answerWithinMs;
  for (client::Reply reply; !silent.empty() && connection->next(reply, end) == Event::REPLY;) {
    silent.erase(reply.header.funcid);
  }
  silent.erase(FUNCID_CHECK_PERMISSION);                  // the one whose whole point is the answer
  if (silent.size() + 1 < all) settings.silent = silent;  // otherwise it is broken rather than taciturn
}

}  // namespace check
