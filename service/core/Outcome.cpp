#include "service/core/Outcome.h"

#include <cerrno>

#include "shared/Text.h"

namespace service {

bool isPassing(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS || error == EAGAIN;
}

Outcome failure(const std::string& what, int error) {
  const bool refused = error == EPERM || error == EACCES || error == EROFS;
  return {refused ? Status::NOT_PERMITTED : Status::FAILED, what + ": " + shared::errorText(error),
          isPassing(error)};
}

void OutcomeSum::add(const Outcome& outcome) {
  ++m_count;
  m_tryAgain = m_tryAgain || outcome.tryAgain;
  if (outcome.status == Status::DONE || outcome.status == Status::PARTLY) ++m_done;
  if (outcome.status != Status::DONE && m_firstFailure == Status::DONE) m_firstFailure = outcome.status;
  if (m_count > kShownTexts || outcome.text.empty()) return;
  m_text += (m_text.empty() ? "" : "; ") + outcome.text;
}

Outcome OutcomeSum::sum() const {
  const bool partly = m_firstFailure != Status::DONE && m_done > 0;
  const std::string more =
      m_count > kShownTexts ? "; and " + std::to_string(m_count - kShownTexts) + " more" : "";
  return {partly ? Status::PARTLY : m_firstFailure, m_text + more, m_tryAgain};
}

}  // namespace service
