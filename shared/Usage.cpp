#include "shared/Usage.h"

#include <algorithm>

#include "shared/Text.h"

namespace shared {
namespace {

/// Insertions, deletions, replacements and swaps of neighbours that lead from one to the other.
size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) {
    for (size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        cost[i][j] = i + j;
        continue;
      }
      cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1,
                             cost[i - 1][j - 1] + static_cast<size_t>(a[i - 1] != b[j - 1])});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
      }
    }
  }
  return cost[a.size()][b.size()];
}

/// Adds the long options of `app` and of those of its subcommands that were given.
void addOptions(const CLI::App& app, std::vector<std::string>& names) {
  for (const CLI::Option* option : app.get_options({})) {
    if (option->get_group().empty()) continue;
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  for (const CLI::App* given : app.get_subcommands()) addOptions(*given, names);
}

}  // namespace

std::string nearest(const std::string& text, const std::vector<std::string>& names) {
  if (text.size() > 100) return "";  // no name is that long, and the distance takes memory
  const auto found = std::min_element(names.begin(), names.end(), [&](const auto& a, const auto& b) {
    return distance(text, a) < distance(text, b);
  });
  return found != names.end() && distance(text, *found) <= 1 + text.size() / 4 ? *found : "";
}

std::string suggestion(const std::string& text, const std::vector<std::string>& names) {
  const std::string meant = nearest(text, names);
  return meant.empty() ? "" : "; did you mean " + meant + "?";
}

std::string usageProblem(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> left = app.remaining(true);
  for (const std::string& word : left) {
    if (word.size() < 2 || word[0] != '-' || word == "--") continue;
    const std::string option = word.substr(0, word.find('='));
    std::vector<std::string> names;
    addOptions(app, names);
    return "there is no option " + printable(option) + suggestion(option, names);
  }
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && !left.empty()) {
    return "\"" + printable(left.back()) + "\" is not expected";  // the last one left is the first given
  }
  return error.what();
}

}  // namespace shared
