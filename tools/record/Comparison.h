// Answers that were recorded beside answers that came, of one connection.
//
// An answer belongs to its request by function identifier and time stamp; several of the same pair are taken
// in order. Compared are status and body, and the order of the answers. Not compared, since they may differ
// from day to day: when a reply came, its version and its word at 16, which the library does not use, and the
// empty replies that keep two bodies apart. Pushes are compared one by one, in their order, by status and
// body.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "tools/client/Packet.h"

namespace record {

class Comparison {
 public:
  /// differs  takes a line for each difference
  explicit Comparison(std::function<void(const std::string&)> differs) : m_differs(std::move(differs)) {}

  /// A request is sent.
  void sent(const std::string& header);
  /// What the recording has, and what came; each side in its own order, the two in any mixture.
  void recorded(client::Reply reply);
  void came(client::Reply reply);

  /// Whether all that was recorded has come. withPushes: pushes, too.
  bool isDone(bool withPushes) const;
  /// Reports what is missing, and which answers were never recorded. Returns how many answers are missing.
  size_t finish(bool withPushes);

  size_t answers() const { return m_answers; }  // compared
  size_t pushes() const { return m_pushes; }    // compared
  size_t extraPushes() const { return m_pushesCame.size(); }

 private:
  using Key = std::pair<uint16_t, int64_t>;  // function identifier and time stamp
  struct Numbered {
    client::Reply reply;
    size_t number;  // in the order of its side
  };
  using Waiting = std::map<Key, std::deque<Numbered>>;

  bool isSeparator(const client::Reply& reply) const;
  void add(client::Reply reply, Waiting& mine, Waiting& theirs, size_t& number,
           std::deque<client::Reply>& myPushes, std::deque<client::Reply>& theirPushes, bool isRecorded);
  void compare(const std::string& what, const client::Reply& recorded, const client::Reply& came);

  const std::function<void(const std::string&)> m_differs;
  std::set<Key> m_sent;  // of the 1010 requests without a time stamp: their answers look like separators
  Waiting m_recorded, m_came;
  size_t m_recordedCount = 0, m_cameCount = 0;
  size_t m_lastRecorded = 0, m_lastCame = 0;  // numbers of the answers compared last
  std::deque<client::Reply> m_pushesRecorded, m_pushesCame;
  size_t m_answers = 0, m_pushes = 0;
};

}  // namespace record
