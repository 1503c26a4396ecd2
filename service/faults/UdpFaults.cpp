#include "service/faults/UdpFaults.h"

#include <algorithm>
#include <iterator>
#include <mutex>

#include "service/core/SteadyClock.h"

namespace service {
namespace {

std::mutex g_lock;
Faults g_faults;  // guarded by g_lock

}  // namespace

void setUdpFaults(const std::vector<Fault>& faults) {
  std::vector<Fault> ours;
  for (Fault fault : faults) {
    if (fault.kind != FaultKind::UDP_LOSE && fault.kind != FaultKind::UDP_DUPLICATE) continue;
    fault.chance = fault.value;  // both say the same here
    ours.push_back(fault);
  }
  const std::lock_guard<std::mutex> lock(g_lock);
  g_faults = Faults(ours, steadyMs());
}

int udpCopies() {
  const std::lock_guard<std::mutex> lock(g_lock);
  const int64_t now = steadyMs();
  if (g_faults.strikes(FaultKind::UDP_LOSE, 0, -1, now)) return 0;
  return g_faults.strikes(FaultKind::UDP_DUPLICATE, 0, -1, now) ? 2 : 1;
}

}  // namespace service
