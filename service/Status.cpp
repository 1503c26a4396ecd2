#include "Status.h"

#include <cerrno>

#include "Text.h"

namespace service {

Outcome failure(const std::string& what, int error) {
  const bool refused = error == EPERM || error == EACCES || error == EROFS;
  return {refused ? STATUS_NOT_PERMITTED : STATUS_FAILED, what + ": " + errorText(error)};
}

void OutcomeSum::add(const Outcome& outcome) {
  ++m_count;
  if (outcome.status == STATUS_DONE || outcome.status == STATUS_PARTLY) ++m_done;
  if (outcome.status != STATUS_DONE && m_firstFailure == STATUS_DONE) m_firstFailure = outcome.status;
  if (m_count > kShownTexts || outcome.text.empty()) return;
  m_text += (m_text.empty() ? "" : "; ") + outcome.text;
}

Outcome OutcomeSum::sum() const {
  const bool partly = m_firstFailure != STATUS_DONE && m_done > 0;
  const std::string more =
      m_count > kShownTexts ? "; and " + std::to_string(m_count - kShownTexts) + " more" : "";
  return {partly ? STATUS_PARTLY : m_firstFailure, m_text + more};
}

}  // namespace service
