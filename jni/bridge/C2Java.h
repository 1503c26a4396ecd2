// Delivery of reports to the application: the queue, its thread, and the call of the static method onData.
#pragma once

#include <jni.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

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

    explicit operator bool() const { return type != 0; }
  };

  /// Reports that may be pending; with so many, producers wait. If the callback thread could not attach to
  /// the VM nobody ever takes one and they wait for good: as designed.
  static constexpr unsigned kPendingReports = 65535;

  /// Bytes of payload that may be pending. A report that would bring more waits too, unless no other payload
  /// is pending; one without payload does not wait for this.
  static constexpr size_t kPendingBytes = size_t{64} << 20;

  Callback() : m_queue(kPendingReports) {}

  int32_t pushCallback(int32_t type, int64_t timestamp, int32_t status, int32_t funcid, int32_t code,
                       const uint8_t* data, int32_t len) override;

  /// The oldest report, waiting for one. Callback thread only.
  CallbackInfo take();

  /// True for the first caller only: who gets true starts the callback thread. Any thread.
  bool claimStart() { return m_started.exchange(1) == 0; }
  /// Takes the claim back, for a thread that could not be started: the next caller tries again.
  void disclaimStart() { m_started = 0; }

 private:
  void giveBack(int32_t len);

  std::atomic<int32_t> m_started{0};
  std::mutex m_bytesLock;
  std::condition_variable m_bytesTaken;
  size_t m_pendingBytes = 0;           // guarded by m_bytesLock: payload in the queue, or about to be
  BoundedQueue<CallbackInfo> m_queue;  // guards itself
};

/// The callback queue. Built at load and never destroyed: the process may exit while threads of the library
/// run.
extern Callback& g_callback;

/// Calls the static method onData "(IJIII[B)V" of the application class with a new array of the `len` bytes
/// at `data` (an empty array when len is 0). Callback thread only. Without such a method, or without memory
/// for the array (one ERROR line), nothing is called. What onData leaves pending is neither tested nor
/// cleared: the Java class lets nothing escape.
extern "C" TARN_EXPORT void c2Java_OnData(JNIEnv* env, int32_t type, int64_t timestamp, int32_t status,
                                          int32_t funcid, int32_t code, const uint8_t* data, int32_t len);
