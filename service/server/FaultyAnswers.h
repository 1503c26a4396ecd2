// Puts answers to clients as the script of faults says. Belongs to the server's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "service/clients/Client.h"
#include "service/faults/Faults.h"

namespace service {

class FaultyAnswers {
 public:
  explicit FaultyAnswers(Faults& faults) : m_faults(faults) {}

  /// Puts the answer, or what the faults make of it, into the client, now or later.
  void answer(Client& client, const Request& request, uint32_t status, int64_t now);

  /// Puts what was delayed long enough: `put` gets the client's id and bytes, which it may drop.
  void goOn(int64_t now, const std::function<void(uint64_t, const std::string&)>& put);
  /// When goOn() has something to do, or INT64_MAX.
  int64_t nextDue() const;

  void forget(uint64_t client);

 private:
  Faults& m_faults;
  std::set<uint64_t> m_mute;                   // clients whose last answer was put
  std::map<uint64_t, std::string> m_heldBack;  // by client: what the next answer goes in front of
  std::map<uint64_t, int64_t> m_lastDue;       // by client, of what is delayed
  std::multimap<int64_t, std::pair<uint64_t, std::string>> m_delayed;  // by when it is due
};

}  // namespace service
