// The options of tarnbooster-service.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "service/core/Boosts.h"
#include "service/core/LineWriter.h"
#include "service/server/Server.h"

namespace service {

struct Options {
  ServerOptions server;
  Policy policy;
  BoostLimits boostLimits;
  Priority most = Priority::INFO;
  std::optional<LineStyle> lines;     // none: what standard output calls for
  std::optional<std::string> record;  // a path, empty for none; not given: a default place
};

/// app  parse() fills `options`, and throws what CLI11 reports
void describeOptions(CLI::App& app, Options& options);

/// What is wrong with the options together; empty when nothing is.
std::string optionsProblem(const Options& options);

}  // namespace service
