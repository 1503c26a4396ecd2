// Between the engines and what owns them: hands engines out, and filters the replies that come back.
#pragma once

#include <cstdint>
#include <memory>

#include "wire/IC2JavaCallback.h"
#include "wire/IClientEngine.h"

/// The largest pushed message that is looked at; a larger one is dropped with one ERROR line. Bodies above it
/// are not kept even while they arrive, so that a service cannot make the application hold more.
constexpr uint32_t kMaxPushedBytes = 64 << 20;

/// The owner of an engine: hands engines out to requests, and takes complete replies from their threads.
class ClientProtocal {
 public:
  /// The single entry for complete replies. Called on an engine's own thread; may wait while the callback
  /// queue is full. A non-zero status becomes a status report; a DataCallback under 1010 becomes a data
  /// report; everything else is only traced.
  ///
  /// event      always 0, unused
  /// funcid     the reply's function identifier
  /// word16     the reply header's 64-bit field at byte 16, unused
  /// timestamp  the reply header's time stamp, nanoseconds
  /// status     the reply's status word
  /// data, len  the payload; stays the caller's, may be null. A length beyond 31 bits comes as a negative
  /// one.
  virtual void onCallback(int32_t event, int32_t funcid, int64_t word16, int64_t timestamp, int32_t status,
                          const uint8_t* data, int32_t len);
  virtual ~ClientProtocal() = default;

  /// A running engine, or null. See Client::engine().
  virtual std::shared_ptr<IClientEngine> engine() = 0;

  /// Where reports go, or null while the library is not initialised. Not owned.
  virtual IC2JavaCallback* c2JavaCallback() = 0;
};
