// The subcommands `record` and `replay`.
#pragma once

#include "tools/cli/Program.h"

namespace record {

/// Adds both. All must outlive the parse and program.run().
void addCommands(CLI::App& app, cli::Program& program);

}  // namespace record
