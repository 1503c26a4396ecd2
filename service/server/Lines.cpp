#include "service/server/Lines.h"

#include <fmt/format.h>

#include "shared/Text.h"

namespace service {

std::string requestLine(const Request& request, const Requester& requester, const Outcome& outcome) {
  const std::string arguments = describeArguments(request);
  return fmt::format("{} {} {} tid={}{}{} -> status {} ({})", request.funcid, requestName(request.funcid),
                     requester.name, request.callertid, arguments.empty() ? "" : " ", arguments,
                     static_cast<int32_t>(outcome.status), outcome.text);
}

std::string pushLine(const Requester& requester, const Push& push) {
  return fmt::format("push to {} code={} data=\"{}\"", requester.name, push.code,
                     shared::printable(push.data));
}

}  // namespace service
