// Text in and out: words fit for a line, and numbers read from what people write.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace shared {

/// Text from a client, made fit for one line of a terminal: control and non-ASCII bytes, quotes and
/// backslashes become \xNN, and what exceeds `most` bytes becomes "...".
std::string printable(std::string_view text, size_t most = 120);

/// The system's words for an errno value.
std::string errorText(int error);

/// A whole decimal number and nothing else (no sign but a minus, no zeros in front) within [least, most].
/// Returns whether `text` is one.
bool parseNumber(std::string_view text, int64_t least, int64_t most, int64_t& number);

}  // namespace shared
