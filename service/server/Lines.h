// The lines that the service says about requests and pushes.
#pragma once

#include <string>

#include "service/clients/Requester.h"
#include "service/core/Outcome.h"
#include "service/wire/Replies.h"
#include "service/wire/Requests.h"

namespace service {

/// "1002 requestCpuHighFreq pid=12 uid=0 tid=13 scene=3 ... -> status 0 (what was done)"
std::string requestLine(const Request& request, const Requester& requester, const Outcome& outcome);

/// "push to pid=12 uid=0 code=7 data="text""
std::string pushLine(const Requester& requester, const Push& push);

}  // namespace service
