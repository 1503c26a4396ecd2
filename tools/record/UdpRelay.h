// A relay between applications and a service over UDP: each datagram goes on as it is, and into the
// recording.
//
// A service may answer from other ports than the one that is asked, and an application acknowledges an answer
// to where it came from. So each application gets a socket towards the service, and each further port of the
// service that speaks to an application a socket (a door) towards that application:
//
//   application  <->  front   relay   back of the application  <->  the service's port
//                <->  door                                     <->  another port of the service
//
// Datagrams that the system has no room for are lost, as they would be anywhere; the transport sends them
// again.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "tools/record/Recorder.h"

namespace record {

/// Applications at a time; then the one that was silent for longest is forgotten.
constexpr size_t kMaxUdpApplications = 256;
/// Ports of the service that may speak to one application.
constexpr size_t kMaxUdpDoors = 8;

class UdpRelay {
 public:
  /// recorder  must outlive the relay
  UdpRelay(const sockaddr_in& service, Recorder& recorder);
  ~UdpRelay();

  /// Listens for applications at an address and port. False with the problem named.
  bool start(const sockaddr_in& as, std::string& problem);
  /// Where it listens.
  const sockaddr_in& address() const { return m_address; }

  /// Relays until `end` is readable. False when it cannot (no descriptors left).
  bool run(int end);

 private:
  struct Application;
  struct Socket;

  std::unique_ptr<Socket> open(const sockaddr_in& local, std::function<void()> handler);
  template <class Take>
  void receive(const Socket& socket, Take take);
  void fromApplication(const sockaddr_in& from, std::string_view bytes);
  void fromService(Application& application, const sockaddr_in& from, std::string_view bytes);
  void write(const Application& application, pcapng::Direction direction, const sockaddr_in& service,
             std::string_view bytes);
  Application* applicationOf(const sockaddr_in& address);

  const sockaddr_in m_service;
  Recorder& m_recorder;
  sockaddr_in m_address{};
  std::unique_ptr<Socket> m_front;
  std::map<uint64_t, std::unique_ptr<Application>> m_applications;  // by address and port
  std::list<uint64_t> m_heard;  // their keys, the one silent for longest in front
};

}  // namespace record
