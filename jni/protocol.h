// The fourteen requests, and the filter through which replies reach the callback queue.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "IC2JavaCallback.h"
#include "IClientEngine.h"

/// The function identifiers: the closed set of request numbers shared with the service.
enum Funcid : uint32_t {
  FUNCID_CHECK_PERMISSION = 1001,
  FUNCID_REQUEST_CPU_HIGH_FREQ = 1002,
  FUNCID_CANCEL_CPU_HIGH_FREQ = 1003,
  FUNCID_REQUEST_CPU_CORE_FOR_THREAD = 1004,
  FUNCID_CANCEL_CPU_CORE_FOR_THREAD = 1005,
  FUNCID_REQUEST_HIGH_IO_FREQ = 1006,
  FUNCID_CANCEL_HIGH_IO_FREQ = 1007,
  FUNCID_REQUEST_SCREEN_RESOLUTION = 1008,
  FUNCID_RESET_SCREEN_RESOLUTION = 1009,
  FUNCID_REGISTER_ANR_CALLBACK = 1010,  // also the identifier under which the service pushes a DataCallback
  FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE = 1011,
  FUNCID_TERMINATE_APP = 1012,
  FUNCID_REQUEST_UNIFY_CPU_IO_THREAD_CORE = 1013,
  FUNCID_CANCEL_UNIFY_CPU_IO_THREAD_CORE = 1014,
};

/// The owner of an engine: hands engines out to requests, and takes complete replies from their threads.
class ClientProtocal {
 public:
  /// The single entry for complete replies. Called on an engine's own thread; may wait while the callback
  /// queue is full. A non-zero status becomes a status report; a DataCallback under 1010 becomes a data
  /// report; everything else is only traced.
  ///
  /// event      always 0, unused
  /// funcid     the reply's function identifier
  /// word16     the reply header's 64-bit field at byte 16, unused
  /// timestamp  the reply header's time stamp, nanoseconds
  /// status     the reply's status word
  /// data, len  the payload; stays the caller's, may be null
  virtual void onCallback(int32_t event, int32_t funcid, int64_t word16, int64_t timestamp, int32_t status,
                          const uint8_t* data, int32_t len);
  virtual ~ClientProtocal() = default;

  /// A running engine, or null. See Client::engine().
  virtual std::shared_ptr<IClientEngine> engine() = 0;

  /// Where reports go, or null while the library is not initialised. Not owned.
  virtual IC2JavaCallback* c2JavaCallback() = 0;
};

// The requests, one function each; the natives convert their arguments and call these. Any thread.
//
// Common arguments: `tid`, the calling thread's id as the application reports it, and `timestamp`, its time
// stamp in nanoseconds, go into the request header. Scene, action and level codes, and durations whose name
// does not say milliseconds, are the service's business and pass through unchanged.
//
// Result: kNoEngine (-3) when no engine could be had; otherwise the low 32 bits of IClientEngine::sendReq()'s
// result, which may be any int, negative ones included.

/// No engine: the client is disabled, or the engine is down and could not be restarted.
constexpr int kNoEngine = -3;
/// cancelCpuCoreForThread without threads; nothing was sent.
constexpr int kNoThreads = -2;

/// pid and uid are logged only, never sent: the service takes them from the socket.
int checkPermission(int pid, int uid, int tid, int64_t timestamp);
int requestCpuHighFreq(int scene, int64_t action, int level, int timeoutms, int tid, int64_t timestamp);
int cancelCpuHighFreq(int tid, int64_t timestamp);
/// bindtids may be null when bindlen is 0.
int requestCpuCoreForThread(int scene, int64_t action, const int* bindtids, int bindlen, int timeout, int tid,
                            int64_t timestamp);
/// Also returns kNoThreads when bindlen is below 1 (once an engine is there).
int cancelCpuCoreForThread(const int* bindtids, int bindlen, int tid, int64_t timestamp);
int requestHighIOFreq(int scene, int64_t action, int level, int timeoutms, int tid, int64_t timestamp);
int cancelHighIOFreq(int tid, int64_t timestamp);
int requestScreenResolution(int level, const std::string& uiName, int tid, int64_t timestamp);
int resetScreenResolution(int tid, int64_t timestamp);
int registerANRCallback(int tid, int64_t timestamp);
/// An empty list is sent all the same, as an empty message.
int registerBootPreloadResource(const std::vector<std::string>& files, int tid, int64_t timestamp);
int terminateApp(int tid, int64_t timestamp);
int requestUnifyCpuIOThreadCore(int scene, int64_t action, int cpulevel, int iolevel, const int* bindtids,
                                int bindlen, int timeout, int tid, int64_t timestamp);
int cancelUnifyCpuIOThreadCore(bool cancelcpu, bool cancelio, bool cancelthread, const int* bindtids,
                               int bindlen, int tid, int64_t timestamp);
