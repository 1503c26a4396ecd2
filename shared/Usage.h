// What is wrong with a command line, in one sentence that names what may have been meant.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace shared {

/// The one of `names` that `text` is most likely meant to be; empty when none is near.
std::string nearest(const std::string& text, const std::vector<std::string>& names);

/// "; did you mean NAME?", or nothing when none of `names` is near.
std::string suggestion(const std::string& text, const std::vector<std::string>& names);

/// What to say when the parsing of `app` has thrown `error`. An option that does not exist comes first: it
/// leaves its value behind and other options missing.
std::string usageProblem(const CLI::App& app, const CLI::ParseError& error);

}  // namespace shared
