// A connection over the local socket.
#pragma once

#include <memory>
#include <string>

#include "shared/UniqueFd.h"
#include "tools/client/Connection.h"

namespace client {

class LocalConnection : public Connection {
 public:
  /// Connects to an abstract name. Null, with the problem named, when nobody listens there, or nobody takes
  /// the connection within two seconds.
  static std::unique_ptr<LocalConnection> open(const std::string& name, std::string& problem);

  void send(std::string_view bytes) override;
  size_t unsent() const override { return m_output.size() - m_sent; }
  Event next(Reply& reply, int64_t deadlineMs, int watched = -1) override;
  int fd() const override { return m_fd.get(); }

  /// Closes the sending half. What has not left is dropped.
  void finishSending();

  /// Bytes of a reply that has come in part.
  size_t partialReply() const { return m_replies.partial(); }

 private:
  explicit LocalConnection(shared::UniqueFd fd) : m_fd(std::move(fd)) {}

  void write();
  void read();

  shared::UniqueFd m_fd;
  std::string m_output;
  size_t m_sent = 0;        // bytes of it that have left
  bool m_writable = true;   // false: the service reads no more, what would be sent is dropped
  bool m_atEnd = false;     // nothing more comes in
  bool m_isBroken = false;  // nothing more can be read
  ReplyStream m_replies;
};

}  // namespace client
