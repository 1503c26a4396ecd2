#include "shared/Text.h"

#include <charconv>
#include <system_error>

namespace shared {

std::string printable(std::string_view text, size_t most) {
  static const char* const kHex = "0123456789abcdef";
  std::string shown;
  for (const char character : text.substr(0, most)) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && byte < 0x7f && byte != '"' && byte != '\\') {
      shown += character;
    } else {
      shown += {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  return text.size() > most ? shown + "..." : shown;
}

std::string errorText(int error) {
  return std::generic_category().message(error);
}

bool parseNumber(std::string_view text, int64_t least, int64_t most, int64_t& number) {
  // A zero in front means eight as the base to some, and a slip to others.
  const std::string_view digits = text.substr(!text.empty() && text[0] == '-' ? 1 : 0);
  if (digits.size() > 1 && digits[0] == '0') return false;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stopped == end && number >= least && number <= most;
}

}  // namespace shared
