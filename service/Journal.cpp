#include "Journal.h"

#include <cstdio>

#include "Text.h"

namespace service {

std::string requestLine(const Request& request, const Peer& peer, const Outcome& outcome) {
  const std::string arguments = describeArguments(request);
  return std::to_string(request.funcid) + " " + requestName(request.funcid) + " " + peer.name +
         " tid=" + std::to_string(request.callertid) + (arguments.empty() ? "" : " " + arguments) +
         " -> status " + std::to_string(outcome.status) + " (" + outcome.text + ")";
}

std::string pushLine(const Peer& peer, const Push& push) {
  return "push to " + peer.name + " code=" + std::to_string(push.code) + " data=\"" + printable(push.data) +
         "\"";
}

Journal::Sink standardOutput() {
  return [](const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
  };
}

}  // namespace service
