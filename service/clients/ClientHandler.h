// What the ports, each with the clients of one transport, ask of the server.
#pragma once

#include "service/clients/Client.h"
#include "service/wire/Requests.h"

namespace service {

class ClientHandler {
 public:
  virtual ~ClientHandler() = default;
  /// A request has come. The answer is put into the client before it returns, or the client is made busy and
  /// gets its answer later. False when nothing more is to be handled in this round.
  /// now  milliseconds of the service's clock, read for this request: others may send for ever, so what is
  ///      due is looked at between any two
  virtual bool handle(Client& client, Request&& request, int64_t now) = 0;
  /// The client is about to go.
  virtual void gone(const Client& client) = 0;
  /// Whether something would end with the client.
  virtual bool holdsBoosts(const Client& client) const = 0;
};

}  // namespace service
