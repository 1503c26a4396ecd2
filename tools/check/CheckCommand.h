// The subcommand `check`.
#pragma once

#include "tools/cli/Program.h"

namespace check {

/// Adds it; the program must outlive the parse and run().
void addCheckCommand(CLI::App& app, cli::Program& program);

}  // namespace check
