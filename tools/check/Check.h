// A case at work: its connections, and what it finds.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/check/Case.h"
#include "tools/client/Connection.h"

namespace client {
class LocalConnection;
}

namespace check {

/// Ends a case: thrown by Check::fail() and Check::skip(), caught by runCase().
struct CaseEnded {
  Verdict verdict;
  std::string came;
};

class Talk;

class Check {
 public:
  Check(const Settings& settings, Result& result) : m_settings(settings), m_result(result) {}

  const Settings& settings() const { return m_settings; }

  [[noreturn]] void fail(const std::string& came) const { throw CaseEnded{Verdict::FAIL, came}; }
  [[noreturn]] void skip(const std::string& why) const { throw CaseEnded{Verdict::SKIP, why}; }
  /// Something lawful that the reference service does not do. Each text is kept once.
  void note(const std::string& text);
  /// What came, for a case that passes.
  void came(const std::string& text) { m_result.came = text; }
  /// More exactly than the case's row: what is being sent at the moment.
  void sending(const std::string& text) { m_result.sent = text; }

  /// Opens a connection; the case fails when the service takes none.
  Talk connect();
  /// The same, or none.
  std::optional<Talk> tryConnect(std::string& problem);

  /// The service serves a new client. Fails otherwise.
  void alive();

 private:
  const Settings& m_settings;
  Result& m_result;
};

/// What became of a request.
enum class Fate { ANSWERED, SILENT, CLOSED };

/// A connection of a case. Whatever arrives is held against the rules that hold always: a reply is whole and
/// well formed, answers one open request by identifier and time stamp, in the order of the requests; a body
/// follows no body; a push comes only after registering, and is a DataCallback. The case fails otherwise.
class Talk {
 public:
  Talk(Check& check, std::unique_ptr<client::Connection> connection);

  /// A request with a time stamp of its own as bytes, remembered as open.
  std::string pack(uint16_t funcid, const std::string& body = "");
  std::string packAt(int64_t timestamp, uint16_t funcid, const std::string& body = "");
  /// Sends bytes as they are, without waiting or reading; what cannot leave at once leaves later. Over UDP
  /// one whole request.
  void queue(const std::string& bytes) { m_connection->send(bytes); }
  /// queue(), and waits until they have left (or the service closes, or takes none for as
  /// long as an answer may take: false).
  bool send(const std::string& bytes);

  /// Waits until all open requests are answered. What `timeoutMs` (-1: as settings say) leaves open is
  /// SILENT, or CLOSED when the service hung up.
  Fate settle(int64_t timeoutMs = -1);
  /// settle(), and the case fails unless all were answered, but for those that the service never answers.
  void expectAnswers();
  /// pack(), send(), settle(). The status of the answer is status().
  Fate ask(uint16_t funcid, const std::string& body = "", int64_t timeoutMs = -1);
  /// ask(), and the case fails unless it is answered. Returns the status.
  uint32_t mustAsk(uint16_t funcid, const std::string& body = "");

  /// Listens for so long. CLOSED when the service hangs up, else SILENT.
  Fate listen(int64_t ms);

  uint32_t status() const { return m_status; }  // of the last answer
  size_t pushes() const { return m_pushes; }    // so far
  size_t answers() const { return m_answers; }  // so far
  bool isClosed() const { return m_isClosed; }  // by the service
  void forgetOpen() { m_open.clear(); }         // no answer is expected any more
  void allowPushes() { m_isRegistered = true; }

  /// The connection as what it is over the local socket.
  client::LocalConnection& local();

 private:
  using Open = std::pair<uint16_t, int64_t>;  // funcid, time stamp

  bool step(int64_t deadlineMs);
  void receive(const client::Reply& reply);
  void receivePush(const client::Reply& reply);
  void receiveAnswer(const client::Reply& reply);
  bool onlySilentOpen() const;

  Check* m_check;
  std::unique_ptr<client::Connection> m_connection;
  std::deque<Open> m_open;
  std::set<Open> m_answered;
  bool m_isRegistered = false;
  bool m_isClosed = false;
  uint32_t m_status = 0;
  size_t m_pushes = 0, m_answers = 0;
};

/// Runs one case.
Result runCase(int number, const Case& which, const Settings& settings);

/// Finds out which requests the service leaves without an answer.
void survey(Settings& settings);

/// "1002 request-cpu-high-freq".
std::string requestText(uint16_t funcid);

/// Waits until the condition holds, at most so long. The condition's last value.
bool eventually(int64_t ms, const std::function<bool()>& condition);

/// The requests that harm nobody, one of each kind but 1012: identifier and body.
const std::vector<std::pair<uint16_t, std::string>>& gentleRequests();

}  // namespace check
