// Thread CPU-load tracing as the natives offer it: start and stop by handle, and the tick rate.
//
// Handles. A trace's handle is the low 32 bits of its monitor's address, so a monitor may come to lie where
// its handle would be 0 (which means "none") or that of a trace that still runs. Such a monitor is set aside
// until the start is over, so that the allocator has to hand out another place, and a new one is tried, at
// most kHandleAttempts times; then the start fails and returns 0. A live entry is never replaced.
// A handle is spent once it was passed to stop: the monitor is freed, and a later trace may get its number.
//
// Threads. Every function may be called from any thread at any time. g_monitorsLock guards the table and is
// held to look a handle up or to enter a new trace, never while a sampler is joined: stop takes the monitor
// out of the table and then waits without the lock, so of two stops of one handle one gets the result.
//
// Exit. The process may exit at any moment with samplers running: the table and its lock are built when the
// library is loaded and never destroyed, so nothing is freed under a sampler or a native that still runs.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "cpuload/ThreadJiffiesMonitor.h"

constexpr int kHandleAttempts = 16;

/// The number of CPUs, counted once when the library is loaded: countCpus("").
extern const int32_t g_cpuCount;

/// The live traces by handle; owns them.
extern std::map<int32_t, std::unique_ptr<ThreadJiffiesMonitor>>& g_monitors;
extern std::mutex& g_monitorsLock;

/// Starts a trace of thread `tid` of this process, sampled every `periodMs` milliseconds (0: without a
/// pause). Returns its handle, to be passed to stopTraceCpuLoad() once; or 0, with nothing left behind, when
/// tid is 0, no CPUs were counted, the thread's ticks cannot be read, or no thread can be created. The handle
/// is any other number, negative ones included. A negative period is accepted and sleeps for up to 71
/// minutes.
int32_t startTraceCpuLoad(int32_t tid, int32_t periodMs);

/// Stops a trace, waiting up to one period for its sampler, and frees it. Returns the sum over its samples of
/// kHz × ticks, modulo 2^32 as a signed number; -1 at once for 0 and for a handle of no live trace.
int32_t stopTraceCpuLoad(int32_t handle);

/// The kernel's clock ticks per second, sysconf(_SC_CLK_TCK).
int32_t tickRate();

/// The number of directories ROOT/sys/devices/system/cpu/cpuN, N from 0 up to the first that is missing. 128
/// or more of them deliberately count as 0, and then no trace can start.
int32_t countCpus(const std::string& root);

/// The handle of a monitor: the low 32 bits of its address.
int32_t handleOf(const ThreadJiffiesMonitor* monitor);

/// startTraceCpuLoad() under another root, with another number of CPUs, and with the given choice of handles.
int32_t startTrace(int32_t tid, int32_t periodMs, const std::string& root, int32_t cpuCount,
                   int32_t (*handleOfMonitor)(const ThreadJiffiesMonitor*) = handleOf);
