// The status words of the reference service's replies, and what they mean in words.
//
// The library hands a non-zero status to the application (onData, type 1) and keeps a zero to itself. The
// numbers are the reference service's own; another service may choose others. They are also tabled in
// service/README.md.
#pragma once

#include <cstdint>

namespace shared {

struct Status {
  enum Code : uint32_t {
    DONE = 0,             // everything that was asked took effect, or was recorded
    PARTLY = 1,           // some of it took effect (one of several threads, files, or parts)
    UNKNOWN_REQUEST = 2,  // no request has this function identifier
    BAD_ARGUMENT = 3,     // a level, timeout, list or path outside what the service takes
    NOT_AVAILABLE = 4,    // this machine has nothing to set for it
    NOT_PERMITTED = 5,    // the service lacks the right, or was not started with the flag that allows it
    NOT_YOURS = 6,        // a thread that does not belong to the requesting process
    PROCESS_UNKNOWN = 7,  // over UDP: acting on a process needs to know who asks
    TOO_MANY_BOOSTS = 8,  // the requester, or all of them together, hold as many as the service keeps
    FAILED = 9,           // the system refused for another reason; the service's line names it
  };
};

/// A few words for a status, as in "no right"; "another status" for one that is not the reference
/// service's.
const char* statusWords(uint32_t status);

}  // namespace shared
