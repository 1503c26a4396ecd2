// The fourteen requests as subcommands: one table, from which the options, the help and the messages come.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace cli {

/// What the options of the subcommands say. Named after the natives' arguments.
struct Arguments {
  int32_t scene = 0;
  int64_t action = 0;
  int32_t level = 0;
  int32_t timeoutms = 0;
  int32_t timeout = 0;
  int32_t cpulevel = 0;
  int32_t iolevel = 0;
  std::vector<int32_t> bindtids;
  bool cancelcpu = false;
  bool cancelio = false;
  bool cancelthread = false;
  std::string uiName;
  std::vector<std::string> files;
  int32_t pid = 0;
  int32_t uid = 0;
  bool inputIsTaken = false;  // standard input is read for something else: no --files-from -
};

/// One request, as a subcommand.
struct Request {
  const char* name;  // the request's name in kebab case
  uint16_t funcid;
  const char* about;
  std::vector<void (*)(CLI::App&, Arguments&)> options;  // each adds one option
  std::string (*body)(const Arguments&);                 // the message as bytes
};

/// All fourteen, in the order of their function identifiers.
const std::vector<Request>& requests();

/// The subcommand of a function identifier; "unknown" outside the set.
const char* requestName(uint16_t funcid);

/// Adds a request's subcommand to an app, with options that fill `arguments` in.
CLI::App& addRequest(CLI::App& app, const Request& request, Arguments& arguments);

}  // namespace cli
