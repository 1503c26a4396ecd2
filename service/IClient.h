// A client as the server's request handling sees it, whichever transport it came over.
#pragma once

#include "Peer.h"
#include "Reply.h"

namespace service {

class IClient {
 public:
  explicit IClient(Peer peer) : m_peer(std::move(peer)) {}
  virtual ~IClient() = default;
  IClient(const IClient&) = delete;
  IClient& operator=(const IClient&) = delete;

  const Peer& peer() const { return m_peer; }

  /// Whether it gets pushes, by request 1010.
  bool isRegistered() const { return m_registered; }
  void setRegistered() { m_registered = true; }

  /// Puts a reply, or a push, behind what waits to be sent. Never waits, cannot fail.
  virtual void answer(const Request& request, uint32_t status) = 0;
  virtual void push(const Push& push) = 0;

 private:
  const Peer m_peer;
  bool m_registered = false;
};

}  // namespace service
