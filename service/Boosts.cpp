#include "Boosts.h"

#include <algorithm>

namespace service {

bool Boosts::fits(uint64_t peerId) const {
  const auto mine = m_perPeer.find(peerId);
  return m_size < kMaxHolds && (mine == m_perPeer.end() || mine->second < kMaxHoldsPerPeer);
}

Outcome Boosts::hold(const Hold& wish, std::unique_ptr<Setting> setting) {
  if (!fits(wish.peerId)) return {STATUS_TOO_MANY_BOOSTS, "too many boosts are held already"};
  const std::string key = setting->key();
  Held& held = m_held[key];
  if (held.setting == nullptr) held.setting = std::move(setting);
  Outcome outcome = held.setting->apply(std::max(strongest(held), wish.strength));
  if (outcome.status == STATUS_DONE || outcome.status == STATUS_PARTLY) {
    held.holds.push_back(wish);
    ++m_perPeer[wish.peerId];
    ++m_size;
  } else if (held.holds.empty()) {
    m_held.erase(key);
  }
  return outcome;
}

size_t Boosts::end(const std::function<bool(const Hold&)>& ends, const std::string& why) {
  const size_t before = m_size;
  for (auto entry = m_held.begin(); entry != m_held.end();) {
    std::vector<Hold>& holds = entry->second.holds;
    const size_t count = holds.size();
    for (const Hold& hold : holds) {
      if (ends(hold) && --m_perPeer[hold.peerId] == 0) m_perPeer.erase(hold.peerId);
    }
    holds.erase(std::remove_if(holds.begin(), holds.end(), ends), holds.end());
    m_size -= count - holds.size();
    if (holds.size() < count) afterEnd(entry->second, why);
    entry = holds.empty() ? m_held.erase(entry) : std::next(entry);
  }
  return before - m_size;
}

void Boosts::afterEnd(Held& held, const std::string& why) {
  const int rest = strongest(held);
  const Outcome outcome = rest > 0 ? held.setting->apply(rest) : held.setting->restore();
  m_journal.event("boost ended (" + why + "): " + (rest > 0 ? "another one still holds, " : "") +
                  outcome.text);
}

size_t Boosts::endExpired(int64_t now) {
  return end([now](const Hold& hold) { return hold.expiresAt <= now; }, "its time is up");
}

size_t Boosts::endAll(const std::string& why) {
  return end([](const Hold&) { return true; }, why);
}

int64_t Boosts::nextExpiry() const {
  int64_t next = kNoExpiry;
  for (const auto& [key, held] : m_held) {
    for (const Hold& hold : held.holds) next = std::min(next, hold.expiresAt);
  }
  return next;
}

int Boosts::strongest(const Held& held) {
  int strength = 0;
  for (const Hold& hold : held.holds) strength = std::max(strength, hold.strength);
  return strength;
}

}  // namespace service
