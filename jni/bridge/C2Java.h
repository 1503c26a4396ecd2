// Delivery of reports to the application: the queue, its thread, and the call of the static method onData.
#pragma once

#include <jni.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/BoundedQueue.h"
#include "base/export.h"
#include "wire/IC2JavaCallback.h"

/// The callback queue. One object, g_callback. Producers: the engines' threads and every Java thread whose
/// request finds no running engine. Consumer: the one callback thread.
class Callback : public IC2JavaCallback {
 public:
  /// One pending report; see IC2JavaCallback::pushCallback() for the meaning of the fields.
  struct CallbackInfo {
    int32_t type = 0;
    int64_t timestamp = 0;
    int32_t status = 0;
    int32_t funcid = 0;
    int32_t code = 0;
    std::unique_ptr<uint8_t[]> data;  // null when there is none
    int32_t len = 0;                  // bytes at data
  };

  /// Reports that may be pending; with so many, producers wait. If the callback thread could not attach to
  /// the VM nobody ever takes one and they wait for good: as designed.
  static constexpr unsigned kPendingReports = 65535;

  Callback() : m_queue(kPendingReports) {}

  int32_t pushCallback(int32_t type, int64_t timestamp, int32_t status, int32_t funcid, int32_t code,
                       const uint8_t* data, int32_t len) override;

  /// The oldest report, waiting for one. Callback thread only.
  std::unique_ptr<CallbackInfo> take() { return m_queue.pop(); }

  /// True for the first caller only: who gets true starts the callback thread. Any thread.
  bool claimStart() { return m_started.exchange(1) == 0; }

 private:
  std::atomic<int32_t> m_started{0};
  BoundedQueue<CallbackInfo> m_queue;  // guards itself
};

/// The callback queue. Built at load and never destroyed: the process may exit while threads of the library
/// run.
extern Callback& g_callback;

/// Calls the static method onData "(IJIII[B)V" of the application class with a new array of the `len` bytes
/// at `data` (an empty array when len is 0). Callback thread only. Without such a method, or without memory
/// for the array, nothing is called. What onData leaves pending is neither tested nor cleared: the Java class
/// lets nothing escape.
extern "C" TARN_EXPORT void c2Java_OnData(JNIEnv* env, int32_t type, int64_t timestamp, int32_t status,
                                          int32_t funcid, int32_t code, const uint8_t* data, int32_t len);
