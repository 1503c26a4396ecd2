// What a transport engine looks like to the client.
#pragma once

#include <cstdint>

/// An engine carries requests to the service on a thread of its own. The engines derive from their transport
/// first and from this interface second.
///
/// Lifetime: engines are held in shared pointers. The `Client` owns the current one; each request holds it
/// while it uses it, and so does the engine's own thread until its last access. Whoever lets go last frees
/// it.
class IClientEngine {
 public:
  /// Whether the engine's loop thread is alive. Any thread.
  virtual bool isRunning() = 0;

  /// Queues one request for the service. Any thread; waits while the engine's send queue is full, but not on
  /// an engine that has ended.
  ///
  /// funcid     function identifier, at most 65535
  /// data       the serialised message, copied; may be null when dataLen is 0
  /// dataLen    its length in bytes
  /// callertid  the calling thread's id, goes into the request header
  /// timestamp  the caller's time stamp in nanoseconds, goes into the request header
  ///
  /// Returns the packet's send time in microseconds (> 0), or the negative code of genReqPack(). Success says
  /// only that the request was packed and offered to the queue, nothing of its delivery.
  virtual int64_t sendReq(uint32_t funcid, const uint8_t* data, uint32_t dataLen, uint32_t callertid,
                          int64_t timestamp) = 0;

  virtual ~IClientEngine() = default;
};
