// The subcommand `holds`: who holds what, from the file that the service keeps (--state-file).
#pragma once

#include "tools/cli/Program.h"

namespace cli {

/// Adds it; the program must outlive the parse and run().
void addHolds(CLI::App& app, Program& program);

}  // namespace cli
