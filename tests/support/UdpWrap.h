// In the system's place for a UDP transport, made of data: linked with -Wl,--wrap for each call of
// kUdpWrapped in CMakeLists.txt, so that the transport itself knows nothing of it. One thread.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

struct Wrap {
  using Datagram = std::pair<sockaddr_in, std::string>;
  int64_t now = 1;             // milliseconds
  std::deque<Datagram> inbox;  // what recvfrom() gives
  std::vector<Datagram> sent;  // what went to sendto(), without ACKs
  std::string trace;           // all that was done, as traceOf...() writes it
};
inline Wrap g_wrap;

inline std::string traceOfDatagram(uint16_t port, const std::string& bytes) {
  return "to " + std::to_string(port) + " " + bytes + "\n";
}
inline std::string traceOfEvent(int event, uint16_t port, int64_t id, const std::string& message) {
  return "event " + std::to_string(event) + " " + std::to_string(port) + " " + std::to_string(id) + " " +
         message + "\n";
}

#define UDP_CHECK(condition)                                                                   \
  do {                                                                                         \
    if (!(condition)) fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), abort(); \
  } while (0)
