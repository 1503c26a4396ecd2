#include "local/LocalsocketClient.h"

#include <unistd.h>

#include <utility>

#include "base/thread.h"
#include "wire/header.h"
// The engine's lines belong to the client's unit, under whose name people know them.
#define LOG_FILE_NAME "client.cpp"
#include "base/log.h"

LocalsocketClient::LocalsocketClient(std::string remotePath, std::string localPath, ClientProtocal* owner)
    : m_remotePath(std::move(remotePath)), m_localPath(std::move(localPath)), m_owner(owner) {}

int LocalsocketClient::start(const std::shared_ptr<LocalsocketClient>& engine) {
  if (engine->createSocket(engine->m_localPath.c_str(), engine->m_remotePath.c_str()) < 0) return -1;
  auto* const held = new std::shared_ptr<LocalsocketClient>(engine);
  engine->m_running.fetch_add(1);
  if (const int error = startDetachedThread(localsocketClientThread, held)) {
    LOG_ERROR("engine thread not created ret:%d", error);
    engine->m_running.fetch_sub(1);
    delete held;
    return -1;
  }
  return 0;
}

/// Takes over `argument`, the thread's own hold on its engine.
void* LocalsocketClient::localsocketClientThread(void* argument) {
  const std::unique_ptr<std::shared_ptr<LocalsocketClient>> held(
      static_cast<std::shared_ptr<LocalsocketClient>*>(argument));
  nameThisThread("tarn-engine");
  blockSigpipe();
  (*held)->loop(false);
  (*held)->m_running.fetch_sub(1);
  LOG_WARN_AT(215, "localsocketClientThread finish. tid:%d", gettid());
  return nullptr;
}

bool LocalsocketClient::isRunning() {
  return m_running.load() != 0;
}

int64_t LocalsocketClient::sendReq(uint32_t funcid, const uint8_t* data, uint32_t dataLen, uint32_t callertid,
                                   int64_t timestamp) {
  uint8_t* packet = nullptr;
  uint32_t length = 0;
  const int64_t result =
      genReqPack(funcid, data, static_cast<int32_t>(dataLen), &packet, &length, callertid, timestamp);
  if (result < 1) {
    LOG_ERROR_AT(252, "genReqPack failed :%d", static_cast<int>(result));
    return result;
  }
  SendPack pack;
  pack.fd = m_fd;
  pack.data.reset(packet);  // the packet's only owner from here on
  pack.len = static_cast<int32_t>(length);
  enqueue(std::move(pack));  // refused by an engine that has ended, and then lost like any unsent packet
  return result;
}

int32_t LocalsocketClient::recvEvent(int32_t event, int32_t fd, uint32_t uid, const char* path,
                                     const uint8_t* data, int32_t len) {
  switch (event) {
    case EVENT_ERROR:
      // Nothing is restarted here: the next engine() does that, once the loop has ended.
      LOG_ERROR_AT(153, "LocalsocketClient recvEvent EVENT_ERROR: uid:%d path:%s fd:%d  Reconnect now.", uid,
                   shownText(path), fd);
      return 0;
    case EVENT_DATA:
      return reassemble(data, static_cast<size_t>(len));
    default:
      LOG_DEBUG_AT(207, "LocalsocketClient ERR EVENT:%d", event);
      return -1;
  }
}

/// Hands every reply that these bytes complete to the owner. 0, or -1 when the rest of the bytes was dropped.
int32_t LocalsocketClient::reassemble(const uint8_t* data, size_t len) {
  size_t used = 0;
  while (used < len) {
    const ReplyReader::Result result = m_reply.read(data, len, &used);
    const ReplyHeader& reply = m_reply.header();
    switch (result) {
      case ReplyReader::Result::NeedMore:
        return 0;
      case ReplyReader::Result::Complete:
        LOG_DEBUG_IN("recvEvent", 195, "LocalsocketClient recvEvent EVENT_DATA funcid:%d timestamp:%dms",
                     reply.funcid, static_cast<int>(reply.timestamp / 1000000));
        m_owner->onCallback(0, reply.funcid, static_cast<int64_t>(reply.word16), reply.timestamp,
                            static_cast<int32_t>(reply.status), m_reply.body(),
                            static_cast<int32_t>(reply.dataLen));
        break;
      case ReplyReader::Result::BadMagic:
        LOG_ERROR_IN("recvEvent", 175, "Check Header BEGIN failed:0x%x server:0x%x", reply.magic,
                     kHeaderMagic);
        break;
      case ReplyReader::Result::NoMemory:
        LOG_ERROR_IN("recvEvent", __LINE__, "reply body of %u bytes not allocated", reply.dataLen);
        continue;
      case ReplyReader::Result::Lost:
        break;
    }
    m_reply.next();
    if (result == ReplyReader::Result::BadMagic) return -1;
  }
  return 0;
}
