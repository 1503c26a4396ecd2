// The process-wide client, which owns the engine.
//
// Ownership of engines, in one paragraph: the Client holds the current engine in a shared pointer under
// m_lock; a request that uses an engine holds a copy for that time, and the engine's thread holds one until
// its last access. tryStartEngine() lets go of a stopped engine, and whoever lets go last frees it. So nobody
// touches a freed engine, nobody waits for a thread, and no lock is held while a request waits for a place in
// a queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "wire/ClientProtocal.h"
#include "wire/IClientEngine.h"

/// The process-wide client: configuration, the enable switch, the current engine. One object, g_client. All
/// operations may be called from any thread at once.
class Client : public ClientProtocal {
 public:
  /// A running engine, restarted if need be; null while the client is disabled, or when the engine is down
  /// and the restart is throttled or failed. An engine that is down is reported to the callback sink (status
  /// -20001) before the restart is tried; that report may wait for a place in the callback queue. The
  /// caller's copy keeps the engine alive, not running.
  std::shared_ptr<IClientEngine> engine() override;

  IC2JavaCallback* c2JavaCallback() override;

  /// Stores the configuration and tries to start an engine, unless one is held (then nothing changes).
  ///
  /// remote    the service: an abstract socket name (port 0) or an IPv4 address text
  /// port      0 selects the local socket, any other port UDP
  /// local     only logged, but must not be empty when port is below 1
  /// callback  where reports go; not owned, must live as long as the process
  ///
  /// Returns false when an engine was held already.
  bool init(const std::string& remote, int32_t port, const std::string& local, IC2JavaCallback* callback);

  /// Starts an engine now. Returns 0 when a new one runs; -1 when not configured; -2 when one already runs;
  /// -3 when the last attempt is less than the retry interval ago, when the start failed, or for a non-zero
  /// port.
  int32_t tryStartEngine();

  /// Switches requests (and delivery to Java) on or off. Switching on from off tries to start an engine
  /// first; switching off leaves the engine as it is.
  void setEnable(bool on);

  /// The least time between two start attempts, in seconds (30 at load); ignored when 0 or less. It is
  /// measured with the wall clock, as designed: a clock that is set back puts the next attempt off by as
  /// much.
  void setRetryConnectInterval(int32_t seconds);

  bool isEnabled() const { return m_enable.load(std::memory_order_relaxed) != 0; }

  /// Whether an engine is held and running, whatever the enable switch says. Tries nothing.
  bool isRunning();

 private:
  using Lock = std::lock_guard<std::mutex>;
  int32_t tryStartEngine(const Lock& held);  // m_lock is held by the caller

  std::atomic<IC2JavaCallback*> m_callback{nullptr};  // not owned; set by init()
  std::atomic<uint32_t> m_enable{1};
  std::mutex m_lock;  // guards all below; held during a start, which never waits for the service
  std::shared_ptr<IClientEngine> m_engine;  // null, running, or stopped and not yet replaced
  int32_t m_retryInterval = 30;             // seconds
  std::string m_remote;
  int32_t m_port = 0;
  std::string m_local;
  int64_t m_lastStartMs = 0;  // wall-clock time of the last attempt; 0 lets the first one pass
};

/// The client. Built at load and never destroyed: the process may exit while threads of the library run.
extern Client& g_client;
