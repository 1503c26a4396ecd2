#include "tools/record/Comparison.h"

#include <fmt/format.h>

#include "base/bytes.h"
#include "shared/Text.h"
#include "wire/Funcid.h"

namespace record {
namespace {

std::string nameOf(const client::Reply& reply) {
  return fmt::format("the answer to {} (time stamp {})", reply.header.funcid, reply.header.timestamp);
}

std::string shown(const std::string& body) {
  return fmt::format("{} bytes \"{}\"", body.size(), shared::printable(body, 40));
}

}  // namespace

void Comparison::sent(const std::string& header) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(header.data());
  const auto timestamp = static_cast<int64_t>(read64le(bytes + request_header::kTimestamp));
  if (timestamp == 0) m_sent.insert({read16le(bytes + request_header::kFuncid), timestamp});
}

bool Comparison::isSeparator(const client::Reply& reply) const {
  const ReplyHeader& header = reply.header;
  return header.funcid == FUNCID_REGISTER_ANR_CALLBACK && header.status == 0 && header.timestamp == 0 &&
         reply.body.empty() && m_sent.count({header.funcid, 0}) == 0;
}

void Comparison::recorded(client::Reply reply) {
  add(std::move(reply), m_recorded, m_came, m_recordedCount, m_pushesRecorded, m_pushesCame, true);
}

void Comparison::came(client::Reply reply) {
  add(std::move(reply), m_came, m_recorded, m_cameCount, m_pushesCame, m_pushesRecorded, false);
}

void Comparison::add(client::Reply reply, Waiting& mine, Waiting& theirs, size_t& number,
                     std::deque<client::Reply>& myPushes, std::deque<client::Reply>& theirPushes,
                     bool isRecorded) {
  if (isSeparator(reply)) return;
  if (reply.isPush()) {
    if (theirPushes.empty()) return myPushes.push_back(std::move(reply));
    ++m_pushes;
    const std::string what = fmt::format("push {}", m_pushes);
    isRecorded ? compare(what, reply, theirPushes.front()) : compare(what, theirPushes.front(), reply);
    return theirPushes.pop_front();
  }
  const Key key{reply.header.funcid, reply.header.timestamp};
  const size_t mineNumber = ++number;
  const auto found = theirs.find(key);
  if (found == theirs.end()) return mine[key].push_back({std::move(reply), mineNumber});
  ++m_answers;
  const Numbered other = std::move(found->second.front());
  found->second.pop_front();
  if (found->second.empty()) theirs.erase(found);
  const size_t recordedNumber = isRecorded ? mineNumber : other.number;
  const size_t cameNumber = isRecorded ? other.number : mineNumber;
  if ((recordedNumber > m_lastRecorded) != (cameNumber > m_lastCame)) {
    m_differs(nameOf(reply) + ": in another order than recorded");
  }
  m_lastRecorded = recordedNumber;
  m_lastCame = cameNumber;
  isRecorded ? compare(nameOf(reply), reply, other.reply) : compare(nameOf(reply), other.reply, reply);
}

void Comparison::compare(const std::string& what, const client::Reply& recorded, const client::Reply& came) {
  if (recorded.header.status != came.header.status) {
    m_differs(fmt::format("{}: status {} came, {} was recorded", what,
                          static_cast<int32_t>(came.header.status),
                          static_cast<int32_t>(recorded.header.status)));
  }
  if (recorded.body != came.body) {
    m_differs(
        fmt::format("{}: a body of {} came, {} was recorded", what, shown(came.body), shown(recorded.body)));
  }
}

bool Comparison::isDone(bool withPushes) const {
  return m_recorded.empty() && (!withPushes || m_pushesRecorded.empty());
}

size_t Comparison::finish(bool withPushes) {
  size_t missing = 0;
  for (const auto& [key, answers] : m_recorded) {
    for (const Numbered& answer : answers) {
      m_differs(fmt::format("{} has not come; status {} was recorded", nameOf(answer.reply),
                            static_cast<int32_t>(answer.reply.header.status)));
      ++missing;
    }
  }
  for (const auto& [key, answers] : m_came) {
    for (const Numbered& answer : answers) {
      m_differs(fmt::format("{} came, with status {}; none was recorded", nameOf(answer.reply),
                            static_cast<int32_t>(answer.reply.header.status)));
    }
  }
  if (withPushes && !m_pushesRecorded.empty()) {
    m_differs(fmt::format("{} pushes have not come", m_pushesRecorded.size()));
    missing += m_pushesRecorded.size();
  }
  return missing;
}

}  // namespace record
