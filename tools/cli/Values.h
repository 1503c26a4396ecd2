// Checks of what people write behind options: strict, so that nothing is taken for something else.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace cli {

/// A decimal number within [least, most]: digits without a leading zero, perhaps a '-' in front.
CLI::Validator decimal(int64_t least, int64_t most);

/// decimal() for everything an integer type holds.
template <class Number>
CLI::Validator decimal() {
  return decimal(std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max());
}

/// Adds the thread ids of a list as in "101,102,self" (self: this program's own thread). Empty text, or what
/// is wrong with it.
std::string parseTids(const std::string& list, std::vector<int32_t>& tids);

/// Adds the lines of a file, or of standard input for "-". Empty text, or why it could not be read.
std::string readLines(const std::string& path, std::vector<std::string>& lines);

}  // namespace cli
