#include "client/protocol.h"

#include <unistd.h>

#include <memory>
#include <new>
#include <optional>

#include "base/log.h"
#include "client/client.h"
#include "wire/Funcid.h"
#include "wire/header.h"
#include "wire/protos/amc.pb.h"

namespace {

/// A serialised message up to this size stands on the caller's stack, a larger one on the heap: a hundred
/// thousand file names must not overflow a Java thread's stack.
constexpr size_t kStackPayloadBytes = 4096;

/// Time stamps are nanoseconds; log lines show milliseconds.
int shownMs(int64_t timestamp) {
  return static_cast<int>(timestamp / 1000000);
}

/// The first look-up of a request: is there an engine to build a message for?
bool haveEngine() {
  return g_client.engine() != nullptr;
}

/// The second look-up, and the send. Nothing when the engine has gone in between (our choice: the request
/// then ends with kNoEngine like one that found none at first).
std::optional<int> send(uint32_t funcid, const uint8_t* data, size_t length, int tid, int64_t timestamp) {
  const std::shared_ptr<IClientEngine> engine = g_client.engine();
  if (engine == nullptr) return std::nullopt;
  return static_cast<int>(
      engine->sendReq(funcid, data, static_cast<uint32_t>(length), static_cast<uint32_t>(tid), timestamp));
}

std::optional<int> send(uint32_t funcid, int tid, int64_t timestamp) {
  return send(funcid, nullptr, 0, tid, timestamp);
}

template <class Message>
std::optional<int> send(uint32_t funcid, const Message& message, int tid, int64_t timestamp) {
  const size_t length = message.ByteSizeLong();
  if (length > kMaxBodyBytes)
    return send(funcid, nullptr, kMaxBodyBytes + 1, tid, timestamp);  // refused with -1
  uint8_t stack[kStackPayloadBytes];
  std::unique_ptr<uint8_t[]> heap;
  if (length > sizeof(stack)) {
    heap.reset(new (std::nothrow) uint8_t[length]);
    if (heap == nullptr) return send(funcid, nullptr, length, tid, timestamp);  // refused with -1
  }
  uint8_t* const payload = heap != nullptr ? heap.get() : stack;
  message.SerializeWithCachedSizesToArray(payload);  // of just the size that was computed above
  return send(funcid, payload, length, tid, timestamp);
}

/// Appends `bindlen` thread ids to a repeated field; none when bindlen is below 1.
template <class Repeated>
void append(Repeated* field, const int* bindtids, int bindlen) {
  if (bindlen < 1) return;
  field->Reserve(field->size() + bindlen);
  for (int i = 0; i < bindlen; ++i) field->Add(bindtids[i]);
}

}  // namespace

// ---- Requests ----

int checkPermission(int pid, int uid, int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  const std::optional<int> ret = send(FUNCID_CHECK_PERMISSION, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("checkPermission ret:%d pid:%d uid:%d local pid: %d, uid:%d tid:%d timestamp:%d", *ret, pid, uid,
            getpid(), getuid(), tid, shownMs(timestamp));
  return *ret;
}

int requestCpuHighFreq(int scene, int64_t action, int level, int timeoutms, int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  amc::RequestCPUHighFreq request;
  request.set_scene(scene);
  request.set_level(level);
  request.set_timeoutms(timeoutms);
  request.set_action(action);
  const std::optional<int> ret = send(FUNCID_REQUEST_CPU_HIGH_FREQ, request, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("requestCpuHighFreq ret:%d scene:%d action:%d level:%d timeoutms:%d tid:%d timestamp:%d", *ret,
            scene, static_cast<int>(action), level, timeoutms, tid, shownMs(timestamp));
  return *ret;
}

int cancelCpuHighFreq(int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  const std::optional<int> ret = send(FUNCID_CANCEL_CPU_HIGH_FREQ, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("cancelCpuHighFreq ret:%d tid:%d timestamp:%d", *ret, tid, shownMs(timestamp));
  return *ret;
}

int requestCpuCoreForThread(int scene, int64_t action, const int* bindtids, int bindlen, int timeout, int tid,
                            int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  amc::RequestCPUCoreForThread request;
  request.set_scene(scene);
  append(request.mutable_bindtids(), bindtids, bindlen);
  request.set_timeout(timeout);
  request.set_action(action);
  const std::optional<int> ret = send(FUNCID_REQUEST_CPU_CORE_FOR_THREAD, request, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("requestCpuCoreForThread ret:%d :%d %d %d %d  ", *ret, scene, static_cast<int>(action), bindlen,
            timeout);
  return *ret;
}

int cancelCpuCoreForThread(const int* bindtids, int bindlen, int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  if (bindtids == nullptr || bindlen < 1) {
    LOG_ERROR("cancelCpuCoreForThread bindlen :%d", bindlen);
    return kNoThreads;
  }
  amc::CancelCPUCoreForThread request;
  append(request.mutable_bindtids(), bindtids, bindlen);
  const std::optional<int> ret = send(FUNCID_CANCEL_CPU_CORE_FOR_THREAD, request, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("cancelCpuCoreForThread :%d end ret:%d", bindlen, *ret);
  return *ret;
}

int requestHighIOFreq(int scene, int64_t action, int level, int timeoutms, int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  amc::RequestHighIOFreq request;
  request.set_scene(scene);
  request.set_level(level);
  request.set_timeoutms(timeoutms);
  request.set_action(action);
  const std::optional<int> ret = send(FUNCID_REQUEST_HIGH_IO_FREQ, request, tid, timestamp);
  if (!ret) return kNoEngine;
  // The other request's name in the text is kept on purpose; the function name of the line tells them apart.
  LOG_DEBUG("requestCpuCoreForThread :%d %d %d %d end ret:%d", scene, static_cast<int>(action), level,
            timeoutms, *ret);
  return *ret;
}

int cancelHighIOFreq(int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  const std::optional<int> ret = send(FUNCID_CANCEL_HIGH_IO_FREQ, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("cancelHighIOFreq ret:%d ", *ret);
  return *ret;
}

int requestScreenResolution(int level, const std::string& uiName, int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  amc::RequestScreenResolution request;
  request.set_level(level);
  request.set_uiname(uiName);
  const std::optional<int> ret = send(FUNCID_REQUEST_SCREEN_RESOLUTION, request, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("requestScreenResolution level: %d uiName:%s end ret:%d", level, uiName.c_str(), *ret);
  return *ret;
}

int resetScreenResolution(int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  const std::optional<int> ret = send(FUNCID_RESET_SCREEN_RESOLUTION, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("resetScreenResolution end ret:%d ", *ret);
  return *ret;
}

int registerANRCallback(int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  const std::optional<int> ret = send(FUNCID_REGISTER_ANR_CALLBACK, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("registerANRCallback end ret:%d ", *ret);
  return *ret;
}

int registerBootPreloadResource(const std::vector<std::string>& files, int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  amc::RequestBootPreLoadResource request;
  for (const std::string& file : files) request.add_files(file);
  const std::optional<int> ret = send(FUNCID_REGISTER_BOOT_PRELOAD_RESOURCE, request, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("registerBootPreloadResource files size:%d end ret:%d", static_cast<int>(files.size()), *ret);
  return *ret;
}

int terminateApp(int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  const std::optional<int> ret = send(FUNCID_TERMINATE_APP, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("terminateApp ret:%d ", *ret);
  return *ret;
}

int requestUnifyCpuIOThreadCore(int scene, int64_t action, int cpulevel, int iolevel, const int* bindtids,
                                int bindlen, int timeout, int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  amc::RequestUnifyCPUIOThreadCore request;
  request.set_scene(scene);
  request.set_cpulevel(cpulevel);
  request.set_iolevel(iolevel);
  append(request.mutable_bindtids(), bindtids, bindlen);
  request.set_timeout(timeout);
  request.set_action(action);
  const std::optional<int> ret = send(FUNCID_REQUEST_UNIFY_CPU_IO_THREAD_CORE, request, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("requestUnifyCpuIOThreadCore :%d %d %d %d %d %d end ret:%d", scene, static_cast<int>(action),
            cpulevel, iolevel, bindlen, timeout, *ret);
  return *ret;
}

int cancelUnifyCpuIOThreadCore(bool cancelcpu, bool cancelio, bool cancelthread, const int* bindtids,
                               int bindlen, int tid, int64_t timestamp) {
  if (!haveEngine()) return kNoEngine;
  amc::CancelUnifyCPUIOThreadCore request;
  request.set_cancelcpu(cancelcpu ? 1 : 0);
  request.set_cancelio(cancelio ? 1 : 0);
  request.set_cancelthread(cancelthread ? 1 : 0);
  append(request.mutable_bindtids(), bindtids, bindlen);
  const std::optional<int> ret = send(FUNCID_CANCEL_UNIFY_CPU_IO_THREAD_CORE, request, tid, timestamp);
  if (!ret) return kNoEngine;
  LOG_DEBUG("cancelUnifyCpuIOThreadCore :%d %d %d %d end ret:%d", cancelcpu, cancelio, cancelthread, bindlen,
            *ret);
  return *ret;
}
