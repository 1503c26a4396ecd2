// What comes back from the service: printed as it comes, and counted.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "wire/ClientProtocal.h"

namespace tool {

/// The owner of the tool's engine, as far as the engine is concerned. onCallback() runs on the engine's
/// thread, the rest is for the tool's.
class Replies : public ClientProtocal {
 public:
  /// funcid  of the requests whose replies are counted
  explicit Replies(uint16_t funcid) : m_funcid(funcid) {}

  void onCallback(int32_t event, int32_t funcid, int64_t word16, int64_t timestamp, int32_t status,
                  const uint8_t* data, int32_t len) override;
  std::shared_ptr<IClientEngine> engine() override { return nullptr; }
  IC2JavaCallback* c2JavaCallback() override { return nullptr; }

  /// A request with this time stamp (nanoseconds) is about to be sent.
  void expect(int64_t timestamp);

  /// Waits until every expected reply has come, at most `ms` milliseconds. Whether they have.
  bool waitForAll(int64_t ms);

  /// Whether every expected reply has come.
  bool allHaveCome() const;

  /// Whether a reply refused its request: a status other than 0.
  bool anyRefused() const;

 private:
  void printPush(const uint8_t* data, int32_t len) const;

  const uint16_t m_funcid;
  mutable std::mutex m_lock;
  std::condition_variable m_changed;
  std::multiset<int64_t> m_expected;  // time stamps of requests without a reply; guarded by m_lock
  std::set<int64_t> m_sent;           // time stamps of all requests; guarded by m_lock
  bool m_refused = false;             // guarded by m_lock
};

}  // namespace tool
