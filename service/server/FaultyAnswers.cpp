#include "service/server/FaultyAnswers.h"

#include <algorithm>
#include <utility>

#include "base/bytes.h"
#include "service/wire/Replies.h"
#include "wire/header.h"

namespace service {

void FaultyAnswers::answer(Client& client, const Request& request, uint32_t status, int64_t now) {
  const uint64_t id = client.requester().id;
  int64_t value = 0;
  const auto strikes = [&](FaultKind kind) { return m_faults.strikes(kind, id, request.funcid, now, value); };
  if (m_mute.count(id) != 0) return;
  if (strikes(FaultKind::CLOSE)) return client.misbehave(Misbehaviour::CLOSE);
  if (strikes(FaultKind::STOP_READING)) client.misbehave(Misbehaviour::STOP_READING);
  if (strikes(FaultKind::HALF_CLOSE)) {
    client.misbehave(Misbehaviour::HALF_CLOSE);
    m_mute.insert(id);
  }
  if (strikes(FaultKind::NO_ANSWER)) return;

  std::string bytes = packAnswer(request, status);
  auto* const header = reinterpret_cast<uint8_t*>(bytes.data());
  if (strikes(FaultKind::WRONG_TIMESTAMP)) {
    write64le(header + reply_header::kTimestamp, static_cast<uint64_t>(request.timestamp) + 1);
  }
  if (strikes(FaultKind::WRONG_FUNCID)) {
    write16le(header + reply_header::kFuncid, static_cast<uint16_t>(request.funcid + 1));
  }
  if (strikes(FaultKind::BAD_MAGIC)) header[0] ^= 1;
  if (strikes(FaultKind::HUGE_LENGTH)) {
    write32le(header + reply_header::kDataLen, static_cast<uint32_t>(value));
  }
  if (strikes(FaultKind::CUT_HEADER)) bytes.resize(static_cast<size_t>(value));
  if (strikes(FaultKind::TWICE)) bytes += std::string(bytes);
  if (strikes(FaultKind::GARBAGE)) bytes.insert(0, m_faults.noise(static_cast<size_t>(value)));
  if (strikes(FaultKind::TWO_BODIES)) bytes += packPush({1, "first"}) + packPush({2, "second"});

  if (strikes(FaultKind::SWAP) && m_heldBack.count(id) == 0) {
    m_heldBack[id] = std::move(bytes);
    return;
  }
  if (const auto held = m_heldBack.find(id); held != m_heldBack.end()) {
    bytes += held->second;
    m_heldBack.erase(held);
  }
  const bool isDelayed = strikes(FaultKind::DELAY);
  const auto last = m_lastDue.find(id);
  if (!isDelayed && last == m_lastDue.end()) return client.put(bytes);
  // Behind what is delayed already.
  const int64_t due = std::max(now + (isDelayed ? value : 0), last != m_lastDue.end() ? last->second : 0);
  m_lastDue[id] = due;
  m_delayed.emplace(due, std::make_pair(id, std::move(bytes)));
}

void FaultyAnswers::goOn(int64_t now, const std::function<void(uint64_t, const std::string&)>& put) {
  while (!m_delayed.empty() && m_delayed.begin()->first <= now) {
    const auto [due, answer] = *m_delayed.begin();
    m_delayed.erase(m_delayed.begin());
    const auto last = m_lastDue.find(answer.first);
    if (last != m_lastDue.end() && last->second <= due) m_lastDue.erase(last);
    put(answer.first, answer.second);
  }
}

int64_t FaultyAnswers::nextDue() const {
  return m_delayed.empty() ? INT64_MAX : m_delayed.begin()->first;
}

void FaultyAnswers::forget(uint64_t client) {
  m_mute.erase(client);
  m_heldBack.erase(client);
  m_lastDue.erase(client);  // what is delayed finds nobody when its time comes
}

}  // namespace service
