#include "Replies.h"

#include <chrono>
#include <cinttypes>
#include <cstdio>

#include "base/clock.h"
#include "shared/Text.h"
#include "wire/Funcid.h"
#include "wire/protos/amc.pb.h"

namespace tool {
namespace {

constexpr int64_t kMaxPlausibleUs = 3600LL * 1000 * 1000;

}  // namespace

void Replies::onCallback(int32_t /*event*/, int32_t funcid, int64_t word16, int64_t timestamp, int32_t status,
                         const uint8_t* data, int32_t len) {
  const std::lock_guard<std::mutex> lock(m_lock);  // also keeps the lines whole
  if (funcid == FUNCID_REGISTER_ANR_CALLBACK && status == 0 && len > 0) return printPush(data, len);
  const bool ours = funcid == m_funcid && m_sent.count(timestamp) != 0;
  // The empty reply that a service puts between two pushes says nothing.
  if (!ours && funcid == FUNCID_REGISTER_ANR_CALLBACK && status == 0) return;
  printf("reply %d status %d timestamp %" PRId64, funcid, status, timestamp);
  // The reference service gives the send time back; another may put anything there.
  const int64_t tookUs = word16 > 0 ? nowUs() - word16 : -1;
  if (tookUs >= 0 && tookUs < kMaxPlausibleUs) printf(" after %.1f ms", static_cast<double>(tookUs) / 1000);
  printf("\n");
  fflush(stdout);
  if (!ours) return;
  const auto waiting = m_expected.find(timestamp);
  if (waiting != m_expected.end()) m_expected.erase(waiting);
  m_refused = m_refused || status != 0;
  m_changed.notify_all();
}

void Replies::printPush(const uint8_t* data, int32_t len) const {
  amc::DataCallback message;
  if (message.ParsePartialFromArray(data, len) && message.IsInitialized()) {
    printf("push code %d data \"%s\" (%zu bytes)\n", message.code(),
           shared::printable(message.data(), SIZE_MAX).c_str(), message.data().size());
  } else {
    printf("push of %d bytes that is no DataCallback\n", len);
  }
  fflush(stdout);
}

void Replies::expect(int64_t timestamp) {
  const std::lock_guard<std::mutex> lock(m_lock);
  m_expected.insert(timestamp);
  m_sent.insert(timestamp);
}

bool Replies::waitForAll(int64_t ms) {
  std::unique_lock<std::mutex> lock(m_lock);
  return m_changed.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_expected.empty(); });
}

bool Replies::allHaveCome() const {
  const std::lock_guard<std::mutex> lock(m_lock);
  return m_expected.empty();
}

bool Replies::anyRefused() const {
  const std::lock_guard<std::mutex> lock(m_lock);
  return m_refused;
}

}  // namespace tool
