#include "service/clients/UdpEnds.h"

namespace service {
namespace {

void* runTransport(void* transport) {
  static_cast<UDP*>(transport)->loop();
  return nullptr;
}

bool open(UDP& transport, const sockaddr_in& local) {
  return transport.createSocket(local, addressText(local).c_str(), ntohs(local.sin_port)) == 0 &&
         transport.startThread(runTransport, &transport) == 0;
}

}  // namespace

int UdpInbox::recvEvent(int event, const sockaddr_in& peer, int64_t /*sessionId*/, const uint8_t* data,
                        uint32_t len) {
  if (event == UDP_EVENT_DATA) m_mailbox.put(peer, data, len);
  return 0;
}

UdpInbox::~UdpInbox() {
  stop();
}

bool UdpInbox::listen(const sockaddr_in& address) {
  return open(*this, address);
}

int UdpReplier::recvEvent(int event, const sockaddr_in& /*peer*/, int64_t /*sessionId*/,
                          const uint8_t* /*data*/, uint32_t /*len*/) {
  if (event == UDP_EVENT_SESSION_FINISH) m_mailbox.put({m_serial, false});
  if (event == UDP_EVENT_TIMEOUT) m_mailbox.put({m_serial, true});
  return 0;
}

UdpReplier::~UdpReplier() {
  stop();
}

bool UdpReplier::open(const sockaddr_in& localAddress) {
  sockaddr_in local = localAddress;
  local.sin_port = 0;
  return service::open(*this, local);
}

}  // namespace service
