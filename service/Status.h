// What the service answers: the status word of a reply, and the words for people that go with it.
//
// The library hands a non-zero status to the application (onData, type 1) and keeps a zero to itself. The
// numbers are this service's own; another service may choose others. They are also tabled in README.md.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace service {

enum Status : uint32_t {
  STATUS_DONE = 0,             // everything that was asked took effect, or was recorded
  STATUS_PARTLY = 1,           // some of it took effect (one of several threads, files, or parts)
  STATUS_UNKNOWN_REQUEST = 2,  // no request has this function identifier
  STATUS_BAD_ARGUMENT = 3,     // a level, timeout, list or path outside what the service takes
  STATUS_NOT_AVAILABLE = 4,    // this machine has nothing to set for it
  STATUS_NOT_PERMITTED = 5,    // the service lacks the right, or was not started with the flag that allows it
  STATUS_NOT_YOURS = 6,        // a thread that does not belong to the requesting process
  STATUS_PEER_UNKNOWN = 7,     // over UDP: acting on a process needs to know who asks
  STATUS_TOO_MANY_BOOSTS = 8,  // the requester, or all of them together, hold as many as the service keeps
  STATUS_FAILED = 9,           // the system refused for another reason; the service's line names it
};

/// What became of a request.
struct Outcome {
  uint32_t status = STATUS_DONE;
  std::string text;  // one line for people: what was done, or why not
};

/// The outcome of a failed system call: NOT_PERMITTED for the errors that say so, else FAILED.
/// what   the deed, as in "binding thread 12"
/// error  an errno value
Outcome failure(const std::string& what, int error);

/// The joint outcome of several deeds: theirs when they agree, PARTLY when only some are DONE, else the
/// status of the first that failed. The texts are joined with "; ".
class OutcomeSum {
 public:
  void add(const Outcome& outcome);
  bool empty() const { return m_count == 0; }
  /// For no deed at all: DONE and an empty text.
  Outcome sum() const;

 private:
  static constexpr int kShownTexts = 4;  // a request may name a thousand threads; its line must stay readable

  int m_count = 0;
  int m_done = 0;
  uint32_t m_firstFailure = STATUS_DONE;
  std::string m_text;
};

}  // namespace service
