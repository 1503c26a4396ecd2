// A client as the server's request handling sees it, whichever transport it came over.
#pragma once

#include "service/clients/Requester.h"
#include "service/wire/Replies.h"

namespace service {

/// What a client may be made to suffer from now on, by the script of faults.
enum class Misbehaviour { CLOSE, HALF_CLOSE, STOP_READING };

class Client {
 public:
  explicit Client(Requester requester) : m_requester(std::move(requester)) {}
  virtual ~Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  const Requester& requester() const { return m_requester; }

  /// Whether it gets pushes, by request 1010.
  bool isRegistered() const { return m_registered; }
  void setRegistered() { m_registered = true; }

  /// Puts a reply, or a push, behind what waits to be sent. Never waits, cannot fail.
  virtual void answer(const Request& request, uint32_t status) = 0;
  virtual void push(const Push& push) = 0;
  /// Any bytes, as they are.
  virtual void put(const std::string& bytes) = 0;

  /// Where there is a connection to do it to.
  virtual void misbehave(Misbehaviour /*how*/) {}

  /// Whether a request of its is still being carried out; its others wait until it is.
  bool isBusy() const { return m_busy; }
  void setBusy(bool busy) { m_busy = busy; }

 private:
  const Requester m_requester;
  bool m_registered = false;
  bool m_busy = false;
};

}  // namespace service
