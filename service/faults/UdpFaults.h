// Faults of the UDP transport: datagrams that are lost, or come twice. They strike what the service sends,
// its acknowledgements included.
#pragma once

#include <vector>

#include "service/faults/Faults.h"

namespace service {

/// Takes the UDP faults of the script. Before any transport is made: theirs is one script for the process.
void setUdpFaults(const std::vector<Fault>& faults);

/// How often the next datagram goes out: 0, 1 or 2. For UdpTiming::copies; any thread.
int udpCopies();

}  // namespace service
