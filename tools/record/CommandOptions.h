// What the options of `record` and `replay` say.
#pragma once

#include <string>

#include "tools/cli/Program.h"

namespace record {

struct RecordOptions {
  std::string as;     // the name that applications use
  std::string asUdp;  // the address and port
  std::string file;   // "-": standard output
  bool quiet = false;
};

struct ReplayCommandOptions {
  std::string file;
  bool fast = false;
  bool quiet = false;
};

void addRecord(CLI::App& app, cli::Program& program, RecordOptions& options);
void addReplay(CLI::App& app, cli::Program& program, ReplayCommandOptions& options);

}  // namespace record
