// Sends the requests of a recording again, and compares the answers with those that were recorded.
//
// Each connection of the recording becomes one to the service: opened with its first packet, closed behind
// its last one once all its recorded answers have come. Requests are sent byte for byte as they were
// recorded.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/client/Connection.h"
#include "tools/client/Target.h"
#include "tools/record/Comparison.h"
#include "tools/record/RecordingReader.h"

namespace record {

struct ReplayOptions {
  bool fast = false;      // one request behind the other, instead of at their times
  int64_t waitMs = 2000;  // for what has not come, after the last thing that happened
};

/// What has become of a replay.
struct ReplayResult {
  size_t connections = 0, requests = 0, answers = 0, pushes = 0;  // answers and pushes: compared
  size_t differences = 0;
  size_t missing = 0;       // answers and pushes that have not come
  bool noService = false;   // no connection to be had
  bool lost = false;        // the service closed a connection that was still needed
  bool broken = false;      // something came that is no reply
  std::string fileProblem;  // why the file ended early
};

class Replayer {
 public:
  /// differs   takes a line for each difference
  /// progress  called every few seconds with the number of requests sent, and of all
  Replayer(client::Target target, ReplayOptions options, std::function<void(const std::string&)> differs,
           std::function<void(size_t, size_t)> progress);
  ~Replayer();

  /// Replays a file; `problem` is set when it cannot be read at all, or holds no request.
  ReplayResult run(const std::string& path, std::string& problem);

 private:
  struct Channel;

  bool lookThrough(const std::string& path, std::string& problem);
  void take(const Passed& passed);
  void send(Channel& channel, const std::string& bytes);
  Channel& channelOf(size_t number);
  void pump(int64_t untilMs);
  void letThemLeave();
  void receive(Channel& channel);
  void closeDone(bool all);
  bool isWaiting() const;
  size_t unsent() const;

  const client::Target m_target;
  const ReplayOptions m_options;
  const std::function<void(const std::string&)> m_differs;
  const std::function<void(size_t, size_t)> m_progress;

  std::vector<size_t> m_left;  // packets of each channel that were not taken yet
  size_t m_total = 0;          // requests (and pieces) in the file
  std::map<size_t, std::unique_ptr<Channel>> m_channels;
  int64_t m_lastEventMs = 0;
  int64_t m_progressAtMs = 0;
  size_t m_taken = 0;  // of m_total
  ReplayResult m_result;
};

}  // namespace record
