// The entry of the callback queue, as its producers see it.
#pragma once

#include <cstdint>

/// What a report to the application's onData is about.
enum ReportType : int32_t {
  REPORT_STATUS = 1,  // a reply with a non-zero status, or that a request found no running engine
  REPORT_DATA = 2,    // a DataCallback that the service pushed
};

/// The status of the report that a request found no running engine. It does not mean that the request was
/// lost: when the restart that follows succeeds, the request goes out over the new engine.
constexpr int32_t kStatusNoEngine = -20001;

class IC2JavaCallback {
 public:
  /// Queues one report for onData. Any thread; waits, for good if need be, while 65535 reports are pending,
  /// or 64 MiB of payload and this report brings more. A report for whose payload or place there is no memory
  /// is one ERROR line, and is dropped.
  ///
  /// type       a ReportType
  /// timestamp  nanoseconds, from the reply's header, or 0
  /// status     the reply's status word, kStatusNoEngine, or 0
  /// funcid     function identifier of the reply, or 0
  /// code       the DataCallback's code, or 0
  /// data, len  payload bytes, copied; none when data is null or len is below 1
  ///
  /// Returns 0.
  virtual int32_t pushCallback(int32_t type, int64_t timestamp, int32_t status, int32_t funcid, int32_t code,
                               const uint8_t* data, int32_t len) = 0;
  virtual ~IC2JavaCallback() = default;
};

/// Declared for applications of the interface; the library neither implements nor calls it.
class ITarnBoosterDataCallback {
 public:
  virtual void onData(int32_t code, const uint8_t* data, int32_t len) = 0;
  virtual ~ITarnBoosterDataCallback() = default;
};
