#include "service/core/Boosts.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

namespace service {
namespace {

size_t countOf(const std::map<uint32_t, size_t>& counts, uint32_t user) {
  const auto found = counts.find(user);
  return found != counts.end() ? found->second : 0;
}

bool isHeld(const Outcome& outcome) {
  return outcome.status == Status::DONE || outcome.status == Status::PARTLY;
}

template <class Counts>
void countDown(Counts& counts, typename Counts::key_type key) {
  if (--counts[key] == 0) counts.erase(key);
}

}  // namespace

bool Boosts::fits(const Boost& boost) const {
  const auto own = m_perHolder.find(boost.holder);
  return m_boosts.size() < m_limits.inAll && countOf(m_perUser, boost.user) < m_limits.perUser &&
         (own == m_perHolder.end() || own->second < m_limits.perHolder);
}

/// Makes the setting, with the record written before and brought up to date behind.
Outcome Boosts::set(Held& held, int strength) {
  Outcome prepared = held.setting->prepare(strength);
  if (!isHeld(prepared)) return prepared;
  if (m_record != nullptr && !m_record->keep(held.setting->key(), held.setting->record())) {
    return {Status::FAILED, "the record of what is to be put back cannot be written: the disk is full?",
            true};
  }
  Outcome outcome = held.setting->apply(strength);
  if (m_record != nullptr) m_record->keep(held.setting->key(), held.setting->record());
  return outcome;
}

Outcome Boosts::add(const Boost& boost, std::unique_ptr<Setting> setting) {
  if (!fits(boost)) return {Status::TOO_MANY_BOOSTS, "too many boosts are held already"};
  const std::string key = setting->key();
  const auto held = m_held.try_emplace(key).first;
  const bool isNew = held->second.setting == nullptr;
  if (isNew) held->second.setting = std::move(setting);
  const auto& strengths = held->second.strengths;
  const int strongest = strengths.empty() ? 0 : *strengths.rbegin();
  Outcome outcome = set(held->second, std::max(strongest, boost.strength));
  if (isHeld(outcome)) {
    m_again.erase(key);
    insert(boost, held);
  } else if (isNew) {
    if (m_record != nullptr) m_record->forget(key);
    m_held.erase(held);
  }
  return outcome;
}

void Boosts::insert(const Boost& boost, HeldMap::iterator held) {
  const uint64_t serial = ++m_lastSerial;
  m_boosts.emplace(serial, Entry{boost, held});
  held->second.boosts.insert(serial);
  held->second.strengths.insert(boost.strength);
  m_byHolder.emplace(boost.holder, serial);
  if (boost.expiresAt != kNoExpiry) m_byExpiry.emplace(boost.expiresAt, serial);
  ++m_perHolder[boost.holder];
  ++m_perUser[boost.user];
  ++m_changes;
}

void Boosts::erase(uint64_t serial) {
  const auto entry = m_boosts.find(serial);
  const Boost& boost = entry->second.boost;
  Held& held = entry->second.held->second;
  held.boosts.erase(serial);
  held.strengths.erase(held.strengths.find(boost.strength));
  m_byHolder.erase({boost.holder, serial});
  m_byExpiry.erase({boost.expiresAt, serial});
  countDown(m_perHolder, boost.holder);
  countDown(m_perUser, boost.user);
  m_boosts.erase(entry);
  ++m_changes;
}

void Boosts::putBack(std::unique_ptr<Setting> setting, int64_t now) {
  const auto [held, isNew] = m_held.try_emplace(setting->key());
  if (!isNew) return;
  held->second.setting = std::move(setting);
  afterEnd(held, "left by a service that was killed", now);
}

size_t Boosts::end(uint64_t holder, const std::function<bool(const Boost&)>& ends, const std::string& why,
                   int64_t now) {
  if (!holds(holder)) return 0;
  std::vector<uint64_t> serials;
  for (auto next = m_byHolder.lower_bound({holder, 0}); next != m_byHolder.end() && next->first == holder;
       ++next) {
    if (ends(m_boosts.at(next->second).boost)) serials.push_back(next->second);
  }
  return end(serials, why, now);
}

size_t Boosts::end(const std::vector<uint64_t>& serials, const std::string& why, int64_t now) {
  std::map<std::string, HeldMap::iterator> touched;  // one line each, in the order of their keys
  for (const uint64_t serial : serials) {
    const auto held = m_boosts.at(serial).held;
    touched.emplace(held->first, held);
    erase(serial);
  }
  for (const auto& [key, held] : touched) afterEnd(held, why, now);
  return serials.size();
}

/// Sets what the rest of the boosts want, or puts the original back.
void Boosts::afterEnd(HeldMap::iterator held, const std::string& why, int64_t now) {
  const bool rest = !held->second.boosts.empty();
  const Outcome outcome =
      rest ? set(held->second, *held->second.strengths.rbegin()) : held->second.setting->restore();
  if (outcome.tryAgain) {
    if (m_again.insert(held->first).second) {
      m_log.warning("boost ended (" + why + "), to be put back as soon as that can be done: " + outcome.text);
    }
    held->second.again = now + kRestoreAgainMs;
    return;
  }
  m_log.info("boost ended (" + why + "): " + (rest ? "another one still holds, " : "") + outcome.text);
  m_again.erase(held->first);
  if (rest) return;
  if (m_record != nullptr) m_record->forget(held->first);
  m_held.erase(held);
}

size_t Boosts::endExpired(int64_t now) {
  if (now < nextExpiry()) return 0;  // asked between any two requests
  if (!m_again.empty()) {
    const std::set<std::string> waiting = m_again;
    for (const std::string& key : waiting) {
      const auto held = m_held.find(key);
      if (held->second.again <= now) afterEnd(held, "tried again", now);
    }
  }
  std::vector<uint64_t> serials;
  for (const auto& [expiresAt, serial] : m_byExpiry) {
    if (static_cast<int64_t>(expiresAt) > now) break;
    serials.push_back(serial);
  }
  return serials.empty() ? 0 : end(serials, "its time is up", now);
}

size_t Boosts::endAll(const std::string& why) {
  std::vector<uint64_t> serials;
  serials.reserve(m_boosts.size());
  for (const auto& [serial, entry] : m_boosts) serials.push_back(serial);
  end(serials, why, 0);
  constexpr int kTries = 3;
  for (int i = 0; i < kTries && !m_again.empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    endExpired(kNoExpiry - (kTries - i) * kRestoreAgainMs);  // behind what each of them puts off
  }
  return serials.size();
}

int64_t Boosts::nextExpiry() const {
  int64_t next = m_byExpiry.empty() ? kNoExpiry : static_cast<int64_t>(m_byExpiry.begin()->first);
  for (const std::string& key : m_again) next = std::min(next, m_held.at(key).again);
  return next;
}

void Boosts::forEach(const std::function<void(const Setting&, const std::vector<Boost>&)>& visit) const {
  for (const auto& [key, held] : m_held) {
    std::vector<Boost> boosts;
    for (const uint64_t serial : held.boosts) boosts.push_back(m_boosts.at(serial).boost);
    visit(*held.setting, boosts);
  }
}

}  // namespace service
