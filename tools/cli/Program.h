// What the program was told to do: filled in while the options are parsed, by the subcommands' own files.
#pragma once

#include <functional>
#include <string>

#include "tools/cli/Requests.h"
#include "tools/cli/Session.h"
#include "tools/client/Target.h"

namespace CLI {
class App;
}

namespace cli {

struct Program {
  // What all subcommands share.
  client::Target target;  // --socket, --udp, $TARNBOOSTER_SOCKET or the default name
  bool json = false;
  // What the requests share.
  HowTo how;
  /// The chosen subcommand, set by its callback; runs after the options are read. Returns the exit code.
  std::function<int()> run;
};

/// The name that is taken without --socket, --udp and $TARNBOOSTER_SOCKET.
constexpr char kDefaultName[] = "tarnbooster";

/// Says what is wrong on standard error, and returns the code.
int fail(ExitCode code, const std::string& problem);

/// Throws what CLI11 reports for a word that is no subcommand, with the one that may be meant, or for a word
/// too many.
[[noreturn]] void refuseWord(const CLI::App& app, const std::string& text);

/// Gives `app` this usage line in its --help; one made from the options would show what is hidden, too.
void setUsage(CLI::App& app, const std::string& usage);

/// Adds the options that say how a request is made.
void addHowTo(CLI::App& app, HowTo& how);

/// Adds the fourteen requests, and "-", which reads them line by line. All must outlive the parse and run().
void addRequests(CLI::App& app, Program& program, Arguments& arguments);

}  // namespace cli
