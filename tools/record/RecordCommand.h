// The subcommand `record`.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace record {

struct RecordOptions {
  std::string socket;  // the service's abstract name
  std::string as;      // the name that applications are given instead
  std::string udp;     // the same as addresses and ports
  std::string asUdp;
  std::string file;
  bool quiet = false;
};

/// Exit codes of `record`.
enum RecordExit {
  RECORD_WHOLE = 0,       // ended by a signal; the file has everything
  RECORD_CANNOT = 1,      // it could not start: the name is in use, the file cannot be created
  RECORD_INCOMPLETE = 5,  // the file could not take everything
};

/// Adds the subcommand with its options.
CLI::App* addRecordCommand(CLI::App& app, RecordOptions& options);

/// Records until SIGINT or SIGTERM. Returns a RecordExit.
int runRecord(const RecordOptions& options);

}  // namespace record
