// One trace of one thread: its CPU ticks, weighted by the frequency of the CPU it ran on.
//
// A sample reads the thread's tick count and CPU from its stat file and that CPU's frequency file, and
// charges the ticks since the last counted sample at that frequency. Two small files are read whatever the
// number of CPUs, and nothing is allocated. A sample that cannot be taken (the thread has ended, the text is
// short, the CPU is unknown) is skipped, and its ticks are charged at the next one that counts.
//
//   constructed --prepare()--> prepared --startSampler()--> sampling --stop()--> stopped
//
// Threads: the owner makes all calls but sample() and sleepPeriod(), which are the sampler's while one runs.
// The sampler touches its own monitor and no static object, so the process may exit while samplers run.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cpuload/PolledFile.h"

class ThreadJiffiesMonitor {
 public:
  /// tid       the thread to trace, one of this process
  /// periodMs  the time between samples in milliseconds; 0 samples without a pause. A negative one is taken
  ///           like any other number: it comes out as a sleep of up to 71 minutes, see sleepPeriod().
  /// root      put in front of the paths of /proc and /sys; "" for the machine's own
  /// cpuCount  CPUs 0 to cpuCount - 1 have a frequency file
  /// Reads the clock and opens nothing.
  ThreadJiffiesMonitor(int32_t tid, int32_t periodMs, std::string root, int32_t cpuCount);

  /// Stops a sampler that still runs, as stop() does, and closes the files.
  ~ThreadJiffiesMonitor();
  ThreadJiffiesMonitor(const ThreadJiffiesMonitor&) = delete;
  ThreadJiffiesMonitor& operator=(const ThreadJiffiesMonitor&) = delete;

  /// Takes the tick count that the first sample counts from. False when there is nothing to trace: tid is 0,
  /// cpuCount is below 1, or the thread's stat file is missing, empty, or without tick counts.
  bool prepare();

  /// Starts the sampler thread, default attributes, on a prepared monitor. False when there can be none.
  bool startSampler();

  /// Ends the sampler and joins it, which takes up to one period; does nothing when none was started. Returns
  /// the accumulated kHz × ticks, modulo 2^32. Ticks after the last counted sample are not in it.
  int32_t stop();

  /// 1 while the sampler is to keep going. Any thread.
  int32_t running() const { return m_running.load(std::memory_order_relaxed); }

  /// Takes one sample. At most two system calls once both files are open.
  void sample();

  /// Sleeps for the low 32 bits of the period in microseconds, as an unsigned number; 0 returns at once.
  void sleepPeriod() const;

  /// When the trace was created, wall-clock milliseconds. Recorded only.
  int64_t startTimeMs() const { return m_startTimeMs; }

  /// Ticks at the last counted sample; -2 after a first read that found an empty file.
  int32_t lastJiffies() const { return m_lastJiffies; }

  /// What stop() would return now. Like lastJiffies(), not while a sampler runs.
  int32_t weightedJiffies() const { return m_weightedJiffies; }

 private:
  std::atomic<int32_t> m_running{0};  // set by the owner; relaxed, since pthread_join orders the results
  pthread_t m_thread{};               // owner; means something while m_joinable
  bool m_joinable = false;            // owner
  int32_t m_lastJiffies = 0;          // this and what follows: owner before the sampler starts and after it
  const int64_t m_startTimeMs;        // is joined, the sampler between
  int32_t m_weightedJiffies = 0;
  std::vector<std::unique_ptr<PolledFile>> m_freqFiles;  // entry N is CPU N's; made by prepare()
  std::unique_ptr<PolledFile> m_statFile;                // made by prepare()
  const int32_t m_tid;
  const int64_t m_periodUs;
  const std::string m_root;
  const int32_t m_cpuCount;
};

/// The sampler thread: samples `monitor` (a ThreadJiffiesMonitor, not owned) at once and then every period,
/// until it is stopped. Returns null.
void* traceCpuLoadThread(void* monitor);
