// The client engine over the reliable UDP transport.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "udp/udp.h"
#include "wire/ClientProtocal.h"
#include "wire/IClientEngine.h"

/// Sends requests to one service and passes replies, from whatever address they come, to its owner.
///
/// Deleting it ends it: its thread is stopped and joined, callers that wait in sendReq() are woken and have
/// left, descriptors and memory are released. Retransmissions are not waited for; a running onCallback() is.
class UdpClient final : public UDP, public IClientEngine {
 public:
  /// owner: takes the replies, on the transport thread; may be null. Not owned, must outlive the engine.
  explicit UdpClient(ClientProtocal* owner, const UdpTiming& timing = UdpTiming())
      : UDP(timing), m_owner(owner) {}
  ~UdpClient() override { stop(); }  // before the members that the thread uses

  /// Sets the engine up: socket and pipe, bound to a port that the system picks, then the service's address.
  ///
  /// remote  the service's IPv4 address as text
  /// port    its port; the low 16 bits count
  ///
  /// Returns 0; or -1 after one ERROR line, with everything released. A text that is no IPv4 address is such
  /// a failure (our choice).
  int connectTo(const std::string& remote, int32_t port);

  /// Starts the engine's thread, once, after connectTo(). Returns 0; or -1 after one ERROR line, with
  /// everything released.
  int start();

  bool isRunning() override { return m_running.load() != 0; }

  /// See IClientEngine. Waits while 10 messages are queued.
  int64_t sendReq(uint32_t funcid, const uint8_t* data, uint32_t dataLen, uint32_t callertid,
                  int64_t timestamp) override;

  /// See UDP. UDP_EVENT_DATA is a reply, header and payload; of one shorter than its header the missing bytes
  /// count as 0, and the owner gets no payload and a negative length. Nothing in it is checked.
  int recvEvent(int event, const sockaddr_in& peer, int64_t sessionId, const uint8_t* data,
                uint32_t len) override;

 private:
  friend void* udpClientThread(void* client);

  void deliverReply(const uint8_t* data, uint32_t len);

  sockaddr_in m_peer{};  // the service; set before the thread starts and before any sendReq()
  ClientProtocal* const m_owner;
  std::atomic<int> m_running{0};  // 1 from before the thread starts until it ends
};

/// The transport thread's entry; `client` is a UdpClient.
void* udpClientThread(void* client);

/// Builds a UdpClient for the service at remote:port, sets it up and starts it. Null, with everything
/// released and one ERROR line written, when that fails.
std::unique_ptr<UdpClient> startUdpClient(ClientProtocal* owner, const std::string& remote, int32_t port);
