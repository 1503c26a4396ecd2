#include "service/core/Boosts.h"

#include <algorithm>

namespace service {

bool Boosts::fits(uint64_t holder) const {
  const auto own = m_perHolder.find(holder);
  return m_size < kMaxBoosts && (own == m_perHolder.end() || own->second < kMaxBoostsPerHolder);
}

Outcome Boosts::add(const Boost& boost, std::unique_ptr<Setting> setting) {
  if (!fits(boost.holder)) return {Status::TOO_MANY_BOOSTS, "too many boosts are held already"};
  const std::string key = setting->key();
  Held& held = m_held[key];
  if (held.setting == nullptr) held.setting = std::move(setting);
  Outcome outcome = held.setting->apply(std::max(strongest(held), boost.strength));
  if (outcome.status == Status::DONE || outcome.status == Status::PARTLY) {
    held.boosts.push_back(boost);
    ++m_perHolder[boost.holder];
    ++m_size;
  } else if (held.boosts.empty()) {
    m_held.erase(key);
  }
  return outcome;
}

size_t Boosts::end(const std::function<bool(const Boost&)>& ends, const std::string& why) {
  const size_t before = m_size;
  for (auto entry = m_held.begin(); entry != m_held.end();) {
    std::vector<Boost>& boosts = entry->second.boosts;
    const size_t count = boosts.size();
    for (const Boost& boost : boosts) {
      if (ends(boost) && --m_perHolder[boost.holder] == 0) m_perHolder.erase(boost.holder);
    }
    boosts.erase(std::remove_if(boosts.begin(), boosts.end(), ends), boosts.end());
    m_size -= count - boosts.size();
    if (boosts.size() < count) afterEnd(entry->second, why);
    entry = boosts.empty() ? m_held.erase(entry) : std::next(entry);
  }
  return before - m_size;
}

void Boosts::afterEnd(Held& held, const std::string& why) {
  const int rest = strongest(held);
  const Outcome outcome = rest > 0 ? held.setting->apply(rest) : held.setting->restore();
  m_log.event("boost ended (" + why + "): " + (rest > 0 ? "another one still holds, " : "") + outcome.text);
}

size_t Boosts::endExpired(int64_t now) {
  return end([now](const Boost& boost) { return boost.expiresAt <= now; }, "its time is up");
}

size_t Boosts::endAll(const std::string& why) {
  return end([](const Boost&) { return true; }, why);
}

int64_t Boosts::nextExpiry() const {
  int64_t next = kNoExpiry;
  for (const auto& [key, held] : m_held) {
    for (const Boost& boost : held.boosts) next = std::min(next, boost.expiresAt);
  }
  return next;
}

int Boosts::strongest(const Held& held) {
  int strength = 0;
  for (const Boost& boost : held.boosts) strength = std::max(strength, boost.strength);
  return strength;
}

}  // namespace service
