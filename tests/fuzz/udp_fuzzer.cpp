// Datagrams, messages and passing time into the UDP transport, against a literal model of its rules.
#include "support/UdpModel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  play(data, size);
  return 0;
}
