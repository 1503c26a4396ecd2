#include "udp/UdpClient.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/bytes.h"
#include "base/thread.h"
#include "wire/header.h"

#define LOG_FILE_NAME "udp.cpp"
#include "base/log.h"

int UdpClient::connectTo(const std::string& remote, int32_t port) {
  sockaddr_in any{};
  any.sin_family = AF_INET;
  if (createSocket(any, remote.c_str(), port) != 0) return -1;
  m_peer.sin_family = AF_INET;
  m_peer.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, remote.c_str(), &m_peer.sin_addr) == 1) return 0;
  LOG_ERROR("Not an IPv4 address:%s", remote.c_str());
  stop();
  return -1;
}

int UdpClient::start() {
  m_running.fetch_add(1);
  if (startThread(udpClientThread, this) == 0) return 0;
  m_running.fetch_sub(1);
  stop();
  return -1;
}

void* udpClientThread(void* client) {
  auto& engine = *static_cast<UdpClient*>(client);
  nameThisThread("tarn-udp");
  const int result = engine.loop();
  LOG_DEBUG("socket:%d finish. tid:%d", result, static_cast<int>(gettid()));
  engine.m_running.fetch_sub(1);
  return nullptr;
}

int64_t UdpClient::sendReq(uint32_t funcid, const uint8_t* data, uint32_t dataLen, uint32_t callertid,
                           int64_t timestamp) {
  uint8_t* packet = nullptr;
  uint32_t length = 0;
  const int64_t sendTime =
      genReqPack(funcid, data, static_cast<int32_t>(dataLen), &packet, &length, callertid, timestamp);
  if (sendTime < 1) return sendTime;
  send(m_peer, std::unique_ptr<uint8_t[]>(packet), length);
  return sendTime;
}

int UdpClient::recvEvent(int event, const sockaddr_in& /*peer*/, int64_t sessionId, const uint8_t* data,
                         uint32_t len) {
  switch (static_cast<UdpEvent>(event)) {
    case UDP_EVENT_TIMEOUT:
      LOG_DEBUG("TIMEOUT");
      return 0;
    case UDP_EVENT_CLOSE:
      LOG_DEBUG("CLOSE.");
      return 0;
    case UDP_EVENT_DATA:
      deliverReply(data, len);
      return 0;
    case UDP_EVENT_SESSION_FINISH:
      LOG_DEBUG("session finish :%d", static_cast<int>(sessionId));
      return 0;
  }
  LOG_DEBUG("ERR EVENT:%d ", event);
  return -1;
}

void UdpClient::deliverReply(const uint8_t* data, uint32_t len) {
  if (m_owner == nullptr) return;
  uint8_t bytes[kHeaderBytes] = {};
  if (len != 0) memcpy(bytes, data, std::min(len, kHeaderBytes));
  const ReplyHeader header = readReplyHeader(bytes);
  // The function identifier is handed on signed, and the status is what an int32 keeps of the 8 bytes at 8.
  m_owner->onCallback(0, static_cast<int16_t>(header.funcid), static_cast<int64_t>(header.word16),
                      header.timestamp, static_cast<int32_t>(header.status),
                      len < kHeaderBytes ? nullptr : data + kHeaderBytes,
                      static_cast<int32_t>(len - kHeaderBytes));
}

std::unique_ptr<UdpClient> startUdpClient(ClientProtocal* owner, const std::string& remote, int32_t port) {
  auto client = std::make_unique<UdpClient>(owner);
  if (client->connectTo(remote, port) != 0 || client->start() != 0) return nullptr;
  return client;
}
