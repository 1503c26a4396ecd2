// The fourteen requests as the service sees them: from bytes to generated messages, and from those to a line.
#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "service/wire/RequestReader.h"
#include "wire/protos/amc.pb.h"

namespace service {

/// What a request carries; std::monostate for the six that carry nothing, and for unknown ones.
using RequestMessage = std::variant<std::monostate, amc::RequestCPUHighFreq, amc::RequestCPUCoreForThread,
                                    amc::CancelCPUCoreForThread, amc::RequestHighIOFreq,
                                    amc::RequestScreenResolution, amc::RequestBootPreLoadResource,
                                    amc::RequestUnifyCPUIOThreadCore, amc::CancelUnifyCPUIOThreadCore>;

/// A decoded request.
struct Request {
  uint16_t funcid = 0;
  uint32_t callertid = 0;  // the calling thread, as the application says
  int64_t sendTime = 0;    // microseconds
  int64_t timestamp = 0;   // nanoseconds
  RequestMessage message;
  size_t leftOutFiles = 0;  // names of 1011 that are not in `message`: beyond kMaxFiles
  std::string arguments;    // describeArguments() of a message that was given up for it
};

/// Names of 1011 that are taken. More are counted and left out before they cost memory.
constexpr size_t kMaxFiles = 4096;

/// Decodes a packet into a request that may have been used before. Returns false, with the problem named,
/// when the body is not the message that goes with the function identifier. An unknown identifier is no
/// problem here (its body is left alone, it is answered with a status), nor is a body behind a request that
/// has none: it is ignored.
bool decodeRequest(const RequestPacket& packet, Request& request, std::string& problem);

/// The request's name, as in "requestCpuHighFreq"; "unknownRequest" for an identifier outside the set.
const char* requestName(uint16_t funcid);

/// The request's arguments for its line, as in "scene=3 level=2 timeoutms=1000 action=5"; empty without any.
std::string describeArguments(const Request& request);

/// Gives the message up, which may be long, and keeps only what describeArguments() says of it.
void keepDescription(Request& request);

}  // namespace service
