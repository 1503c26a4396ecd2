// What became of a request: a status for the reply, and words for people.
#pragma once

#include <cstdint>
#include <string>

#include "shared/Status.h"

namespace service {

using shared::Status;

/// What became of a request.
struct Outcome {
  uint32_t status = Status::DONE;
  std::string text;       // one line for people: what was done, or why not
  bool tryAgain = false;  // it failed for a want that passes: no descriptor or memory was left
};

/// Whether an errno value says that descriptors or memory have run out: a want that passes.
bool isPassing(int error);

/// The outcome of a failed system call: NOT_PERMITTED for the errors that say so, else FAILED; worth another
/// try when descriptors or memory had run out.
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
  uint32_t m_firstFailure = Status::DONE;
  bool m_tryAgain = false;
  std::string m_text;
};

}  // namespace service
