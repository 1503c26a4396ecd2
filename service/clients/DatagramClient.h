// One client over UDP: the replies on their way to it.
#pragma once

#include <netinet/in.h>

#include <deque>
#include <memory>
#include <string>

#include "service/clients/Client.h"
#include "service/clients/UdpEnds.h"

namespace service {

class DatagramClient : public Client {
 public:
  DatagramClient(const sockaddr_in& address, Requester requester)
      : Client(std::move(requester)), m_address(address) {}

  void answer(const Request& request, uint32_t status) override {
    m_waiting.push_back(packAnswer(request, status));
  }
  /// A message is a reply here: what a stream needs between two bodies is not needed.
  void push(const Push& push) override { m_waiting.push_back(packPush(push)); }
  void put(const std::string& bytes) override { m_waiting.push_back(bytes); }

 private:
  friend class UdpPort;

  const sockaddr_in m_address;
  int64_t m_heardAt = 0;                       // milliseconds
  bool m_hasAcknowledged = false;              // anything, ever: somebody is there
  int64_t m_acknowledgeBy = INT64_MAX;         // until then it has to, or it is forgotten
  std::deque<UdpMailbox::Message> m_deferred;  // requests that came while it was busy
  size_t m_deferredBytes = 0;                  // of these
  std::deque<std::string> m_waiting;
  size_t m_inFlight = 0;
  std::unique_ptr<UdpReplier> m_replier;  // made for the first reply
};

}  // namespace service
