// Requests line by line from standard input, over one connection.
#pragma once

#include "tools/cli/Program.h"

namespace cli {

/// Reads until the end of the input. A line is a request as on the command line (its options default to the
/// program's), empty, or a comment (#). Returns the highest code of all lines.
int runLines(const Program& program, Session& session);

}  // namespace cli
