#include "bridge/C2Java.h"

#include <cstring>
#include <new>
#include <utility>

#include "base/log.h"
#include "bridge/com_tarn_performance_TarnBoosterJNI.h"

Callback& g_callback = *new Callback;

int32_t Callback::pushCallback(int32_t type, int64_t timestamp, int32_t status, int32_t funcid, int32_t code,
                               const uint8_t* data, int32_t len) {
  CallbackInfo info;
  info.type = type;
  info.timestamp = timestamp;
  info.status = status;
  info.funcid = funcid;
  info.code = code;
  const bool hasData = data != nullptr && len >= 1;
  if (hasData) {
    {
      std::unique_lock<std::mutex> lock(m_bytesLock);
      m_bytesTaken.wait(lock, [&] { return m_pendingBytes == 0 || m_pendingBytes + len <= kPendingBytes; });
      m_pendingBytes += len;
    }
    info.len = len;
    info.data.reset(new (std::nothrow) uint8_t[len]);
    if (info.data == nullptr) {
      giveBack(len);
      LOG_ERROR("report of %d bytes not allocated", len);
      return 0;
    }
    memcpy(info.data.get(), data, len);
  }
  if (!m_queue.push(std::move(info))) {
    if (hasData) giveBack(len);
    LOG_ERROR("report of %d bytes not queued", hasData ? len : 0);
  }
  return 0;
}

Callback::CallbackInfo Callback::take() {
  CallbackInfo info = m_queue.pop();
  if (info.len > 0) giveBack(info.len);
  return info;
}

void Callback::giveBack(int32_t len) {
  {
    const std::lock_guard<std::mutex> lock(m_bytesLock);
    m_pendingBytes -= len;
  }
  m_bytesTaken.notify_all();
}

void c2Java_OnData(JNIEnv* env, int32_t type, int64_t timestamp, int32_t status, int32_t funcid, int32_t code,
                   const uint8_t* data, int32_t len) {
  if (env == nullptr) {
    LOG_ERROR("Not init env");
    return;
  }
  jmethodID const onData = env->GetStaticMethodID(g_classUdpEngine, "onData", "(IJIII[B)V");
  if (onData == nullptr) {
    env->ExceptionClear();  // the look-up's own; the next delivery must not begin with it
    return;
  }
  jbyteArray const array = env->NewByteArray(len);
  if (array == nullptr) {
    env->ExceptionClear();
    LOG_ERROR("array of %d bytes not allocated", len);
    return;
  }
  env->SetByteArrayRegion(array, 0, len, reinterpret_cast<const jbyte*>(data));
  env->CallStaticVoidMethod(g_classUdpEngine, onData, type, static_cast<jlong>(timestamp), status, funcid,
                            code, array);
  env->DeleteLocalRef(array);
}
