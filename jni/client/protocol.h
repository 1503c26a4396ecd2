// The fourteen requests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The requests, one function each; the natives convert their arguments and call these. Any thread.
//
// Common arguments: `tid`, the calling thread's id as the application reports it, and `timestamp`, its time
// stamp in nanoseconds, go into the request header. Scene, action and level codes, and durations whose name
// does not say milliseconds, are the service's business and pass through unchanged.
//
// Result: kNoEngine (-3) when no engine could be had; otherwise the low 32 bits of IClientEngine::sendReq()'s
// result: -1 for a message that is too large for a packet, or for which there is no memory, else those of the
// send time, which may be any int.
// Once in 71 minutes the clock passes each of them, so a request that was queued may return -1, -2 or -3 as
// well.
//
// Queued is not sent: after the service has died, the first request goes into a connection that is no more,
// is lost, and returns its send time like any other; the one after it finds no engine.

/// The request could not be packed: it is too large, or there is no memory for it; nothing was sent.
constexpr int kNotPacked = -1;
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
