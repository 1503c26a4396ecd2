#include "tools/cli/Values.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>

#include "shared/Text.h"

namespace cli {
namespace {

/// No request, and no state of a service, comes near.
constexpr size_t kMaxLinesBytes = size_t{64} << 20;

}  // namespace

CLI::Validator decimal(int64_t least, int64_t most) {
  return CLI::Validator(
      [=](std::string& text) {
        int64_t number = 0;
        if (shared::parseNumber(text, least, most, number)) return std::string();
        return fmt::format("\"{}\" is no decimal number from {} to {}", shared::printable(text), least, most);
      },
      "");
}

std::string parseTids(const std::string& list, std::vector<int32_t>& tids) {
  if (list.empty()) return "the list is empty: leave the option out for no threads";
  for (size_t start = 0; start <= list.size();) {
    const size_t end = std::min(list.find(',', start), list.size());
    const std::string item = list.substr(start, end - start);
    int64_t tid = gettid();
    if (item != "self" && !shared::parseNumber(item, INT32_MIN, INT32_MAX, tid)) {
      return fmt::format("\"{}\" in \"{}\" is neither a decimal thread id nor \"self\"",
                         shared::printable(item), shared::printable(list));
    }
    tids.push_back(static_cast<int32_t>(tid));
    start = end + 1;
  }
  return "";
}

std::string readLines(const std::string& path, std::vector<std::string>& lines) {
  std::ifstream file;
  if (path != "-") file.open(path);
  std::istream& in = path == "-" ? std::cin : file;
  if (in) {
    errno = 0;
    // By pieces, as a line may be without end.
    std::string text;
    char piece[65536];
    while (text.size() <= kMaxLinesBytes && (in.read(piece, sizeof(piece)) || in.gcount() > 0)) {
      text.append(piece, static_cast<size_t>(in.gcount()));
    }
    if (text.size() > kMaxLinesBytes) {
      return fmt::format("cannot read {}: more than {} bytes", shared::printable(path), kMaxLinesBytes);
    }
    std::istringstream split(text);
    for (std::string line; std::getline(split, line);) lines.push_back(line);
    if (!in.bad()) return "";
  }
  return fmt::format("cannot read {}: {}", path == "-" ? "standard input" : shared::printable(path),
                     shared::errorText(errno));
}

}  // namespace cli
