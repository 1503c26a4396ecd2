// What the program's exit code says. One table for --help and the README; of several that apply the highest
// counts.
#pragma once

namespace cli {

enum ExitCode {
  EXIT_ANSWERED = 0,
  EXIT_REFUSED = 1,
  EXIT_USAGE = 2,
  EXIT_NO_SERVICE = 3,
  EXIT_NO_ANSWER = 4,
  EXIT_LOST = 5,
  EXIT_BROKEN = 6,
  EXIT_OUTPUT = 7,
};

constexpr char kExitCodes[] =
    "\nExit codes (of several that apply, the highest):\n"
    "  0  every request was answered with status 0; every case has passed; a replay went as recorded;\n"
    "     a recording was ended and is complete\n"
    "  1  a request was answered with another status; a case has failed; a replay differs\n"
    "  2  the options, or a line of input, are wrong; nothing was sent for it. Or record's name is in use\n"
    "  3  no service is there (over UDP nothing tells: that is a 4)\n"
    "  4  a request was not answered in time, or something recorded has not come\n"
    "  5  the service has closed the connection, or takes no more\n"
    "  6  what came back, or a file that was read, is not what it should be\n"
    "  7  the output could not be written\n";

}  // namespace cli
