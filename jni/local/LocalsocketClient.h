// The client engine over the local socket. For who owns an engine and who lets go of it, see client/client.h.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "local/LocalSocket.h"
#include "local/ReplyReader.h"
#include "wire/ClientProtocal.h"
#include "wire/IClientEngine.h"

/// The engine over the local socket: packs requests, queues them on its socket, and cuts what comes back into
/// replies.
class LocalsocketClient : public LocalSocket, public IClientEngine {
 public:
  /// remotePath  the service's name in the abstract namespace
  /// localPath   only logged
  /// owner       receives complete replies on the loop thread; not owned, must outlive the engine
  LocalsocketClient(std::string remotePath, std::string localPath, ClientProtocal* owner);

  /// Connects `engine` and starts its thread, which holds the engine until its loop has ended. Returns 0, or
  /// -1 when the socket or the thread could not be had (one ERROR line); the engine is then good
  /// for nothing.
  static int start(const std::shared_ptr<LocalsocketClient>& engine);

  bool isRunning() override;
  int64_t sendReq(uint32_t funcid, const uint8_t* data, uint32_t dataLen, uint32_t callertid,
                  int64_t timestamp) override;

 protected:
  /// Loop thread. Refuses every incoming connection.
  int32_t recvEvent(int32_t event, int32_t fd, uint32_t uid, const char* path, const uint8_t* data,
                    int32_t len) override;

 private:
  static void* localsocketClientThread(void* argument);
  int32_t reassemble(const uint8_t* data, size_t len);

  const std::string m_remotePath;
  const std::string m_localPath;
  ClientProtocal* const m_owner;      // not owned
  ReplyReader m_reply;                // loop thread
  std::atomic<int32_t> m_running{0};  // live loop threads: 0 or 1
};
