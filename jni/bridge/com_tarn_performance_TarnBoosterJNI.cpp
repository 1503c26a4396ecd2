#include "bridge/com_tarn_performance_TarnBoosterJNI.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/thread.h"
#include "bridge/C2Java.h"
#include "bridge/jniRegisterNativeMethods.h"
#include "client/client.h"
#include "client/protocol.h"
#include "cpuload/cpuLoad.h"

JavaVM* g_jvm = nullptr;
jclass g_classUdpEngine = nullptr;

char* jstringToChars(JNIEnv* env, jstring s) {
  jboolean isCopy = JNI_FALSE;
  const char* const chars =
      env->GetStringUTFChars(s, &isCopy);  // s is not checked: the Java class refuses null
  char* copy = nullptr;
  if (chars != nullptr) {
    copy = strdup(chars);
    env->ReleaseStringUTFChars(s, chars);
  } else {
    env->ExceptionClear();  // the machine's own lack of memory
  }
  if (copy == nullptr) LOG_ERROR("text not copied");
  return copy;
}

int* jintArrayToInts(JNIEnv* env, jintArray a, int& length) {
  if (a == nullptr) {
    length = 0;
    return nullptr;
  }
  const jsize n = env->GetArrayLength(a);
  jint* const elements = env->GetIntArrayElements(a, nullptr);
  int* copy = nullptr;
  if (elements != nullptr) {
    if (n >= 1) copy = new (std::nothrow) int[n];
    if (copy != nullptr) memcpy(copy, elements, static_cast<size_t>(n) * sizeof(int));
    env->ReleaseIntArrayElements(a, elements, 0);
  } else {
    env->ExceptionClear();  // the machine's own lack of memory
  }
  if (n >= 1 && copy == nullptr) LOG_ERROR("%d numbers not copied", n);
  length = n;
  return copy;
}

namespace {

// Kept on purpose: what jstringToChars() and jintArrayToInts() copy for the natives is never released.

/// A string argument into `text`; false when there was no memory for the copy.
bool takeText(JNIEnv* env, jstring s, std::string* text) {
  const char* const copy = jstringToChars(env, s);
  if (copy != nullptr) *text = copy;
  return copy != nullptr;  // NOLINT(clang-analyzer-unix.Malloc)
}

/// An array argument.
struct Tids {
  Tids(JNIEnv* env, jintArray array) : ids(jintArrayToInts(env, array, length)) {}
  /// There was no memory for the copy.
  bool areLost() const { return ids == nullptr && length > 0; }

  int length = 0;
  const int* const ids;
};

// ---- The callback thread ----

/// Delivers reports for the life of the process. `argument` is the Callback. Attached to the VM once and
/// never detached, so a desktop VM does not end by itself.
void* callbackThread(void* argument) {
  nameThisThread("tarn-callback");
  auto* const callback = static_cast<Callback*>(argument);
  JNIEnv* env = nullptr;
#ifdef __ANDROID__
  const jint ret = g_jvm->AttachCurrentThread(&env, nullptr);
#else
  const jint ret = g_jvm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr);
#endif
  if (ret != 0) {
    LOG_ERROR("AttachCurrentThread failed jvm:%d ret:%d", addressBits(g_jvm), ret);
    return nullptr;
  }
  for (;;) {
    const Callback::CallbackInfo info = callback->take();
    if (!g_client.isEnabled()) continue;  // dropped, and not replayed later
    c2Java_OnData(env, info.type, info.timestamp, info.status, info.funcid, info.code, info.data.get(),
                  info.len);
  }
}

/// Starts the callback thread on the first call, whatever becomes of the engine. One that cannot be created
/// is tried again by the next call.
void startCallbackThread() {
  if (!g_callback.claimStart()) return;
  if (const int error = startDetachedThread(callbackThread, &g_callback)) {
    LOG_ERROR("callback thread not created ret:%d", error);
    g_callback.disclaimStart();
  }
}

// ---- Natives, in the order of the table below ----

jint com_tarn_performance_tarnboosterjni_testtarnbooster(JNIEnv*, jobject) {
  LOG_DEBUG("testtarnbooster");
  return 11;
}

jint com_tarn_performance_tarnboosterjni_initTarnBooster(JNIEnv* env, jobject, jstring remote, jint port,
                                                         jstring local) {
  LOG_DEBUG("initTarnBooster");
  std::string remoteText, localText;
  const bool taken = takeText(env, remote, &remoteText) && takeText(env, local, &localText);
  startCallbackThread();
  if (!taken || !g_client.init(remoteText, port, localText, &g_callback)) return 0;
  LOG_DEBUG("initTarnBooster end");
  return 0;
}

jint com_tarn_performance_tarnboosterjni_checkPermission(JNIEnv*, jobject, jint pid, jint uid, jint tid,
                                                         jlong timestamp) {
  LOG_DEBUG("checkPermission: %d %d %d %lld ", pid, uid, tid, static_cast<long long>(timestamp));
  return checkPermission(pid, uid, tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_requestCpuHighFreq(JNIEnv*, jobject, jint scene, jlong action,
                                                            jint level, jint timeoutms, jint tid,
                                                            jlong timestamp) {
  LOG_DEBUG("requestCpuHighFreq: %d %d %d %d %d %lld", scene, static_cast<int>(action), level, timeoutms, tid,
            static_cast<long long>(timestamp));
  return requestCpuHighFreq(scene, action, level, timeoutms, tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_cancelCpuHighFreq(JNIEnv*, jobject, jint tid, jlong timestamp) {
  LOG_DEBUG("cancelCpuHighFreq: %d %lld", tid, static_cast<long long>(timestamp));
  return cancelCpuHighFreq(tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_requestCpuCoreForThread(JNIEnv* env, jobject, jint scene,
                                                                 jlong action, jintArray bindtids,
                                                                 jint timeout, jint tid, jlong timestamp) {
  const Tids tids(env, bindtids);
  LOG_DEBUG("requestCpuCoreForThread: %d %d %d %d %d %lld", scene, static_cast<int>(action), tids.length,
            timeout, tid, static_cast<long long>(timestamp));
  if (tids.areLost()) return kNotPacked;
  return requestCpuCoreForThread(scene, action, tids.ids, tids.length, timeout, tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_cancelCpuCoreForThread(JNIEnv* env, jobject, jintArray bindtids,
                                                                jint tid, jlong timestamp) {
  const Tids tids(env, bindtids);
  LOG_DEBUG("cancelCpuCoreForThread: %d %d %lld", tids.length, tid, static_cast<long long>(timestamp));
  if (tids.areLost()) return kNotPacked;
  return cancelCpuCoreForThread(tids.ids, tids.length, tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_requestHighIOFreq(JNIEnv*, jobject, jint scene, jlong action,
                                                           jint level, jint timeoutms, jint tid,
                                                           jlong timestamp) {
  LOG_DEBUG("requestHighIOFreq: %d %d %d %d %d %lld", scene, static_cast<int>(action), level, timeoutms, tid,
            static_cast<long long>(timestamp));
  return requestHighIOFreq(scene, action, level, timeoutms, tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_cancelHighIOFreq(JNIEnv*, jobject, jint tid, jlong timestamp) {
  LOG_DEBUG("cancelHighIOFreq: %d %lld", tid, static_cast<long long>(timestamp));
  return cancelHighIOFreq(tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_requestScreenResolution(JNIEnv* env, jobject, jint level,
                                                                 jstring uiName, jint tid, jlong timestamp) {
  std::string name;
  if (!takeText(env, uiName, &name)) return kNotPacked;
  LOG_DEBUG("requestScreenResolution: %d %s %d %lld", level, name.c_str(), tid,
            static_cast<long long>(timestamp));
  return requestScreenResolution(level, name, tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_resetScreenResolution(JNIEnv*, jobject, jint tid, jlong timestamp) {
  LOG_DEBUG("resetScreenResolution: %d  %lld", tid, static_cast<long long>(timestamp));
  return resetScreenResolution(tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_registerANRCallback__IJ(JNIEnv*, jobject, jint tid,
                                                                 jlong timestamp) {
  LOG_DEBUG("registerANRCallback: %d %lld", tid, static_cast<long long>(timestamp));
  return registerANRCallback(tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_registerBootPreloadResource(JNIEnv* env, jobject, jobjectArray files,
                                                                     jint tid, jlong timestamp) {
  LOG_DEBUG("registerBootPreloadResource: %d %lld", tid, static_cast<long long>(timestamp));
  std::vector<std::string> names;
  const jsize count = env->GetArrayLength(files);
  if (count <= 0) {
    LOG_ERROR("registerBootPreloadResource: files count is zero!");
    // An empty list is sent all the same; do not turn this into an early return.
  }
  LOG_DEBUG("registerBootPreloadResource: files count is %d", count);
  // Beyond 16 references the machine wants to be asked first; what it cannot promise it may still do.
  if (count > 0 && env->EnsureLocalCapacity(count) != 0) env->ExceptionClear();
  for (jsize i = 0; i < count; ++i) {
    // The local references stay until the native returns, as designed: the VM's capacity bounds the number of
    // files.
    auto const element = static_cast<jstring>(env->GetObjectArrayElement(files, i));
    if (!takeText(env, element, &names.emplace_back())) return kNotPacked;
    LOG_DEBUG("registerBootPreloadResource: index[%d] file[%s]", i, names.back().c_str());
  }
  return registerBootPreloadResource(names, tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_terminateApp(JNIEnv*, jobject, jint tid, jlong timestamp) {
  LOG_DEBUG("terminateApp tid:%d %lld", tid, static_cast<long long>(timestamp));
  return terminateApp(tid, timestamp);
}

jint com_tarn_performance_tarnboosterjni_requestUnifyCpuIOThreadCore(JNIEnv* env, jobject, jint scene,
                                                                     jlong action, jint cpulevel,
                                                                     jint iolevel, jintArray bindtids,
                                                                     jint timeout, jint tid,
                                                                     jlong timestamp) {
  const Tids tids(env, bindtids);
  LOG_DEBUG(
      "requestUnifyCpuIOThreadCore scene:%d action:%d cpulevel:%d iolevel:%d bindtids len:%d timeout:%d "
      "tid:%d "
      "timestamp:%lld",
      scene, static_cast<int>(action), cpulevel, iolevel, tids.length, timeout, tid,
      static_cast<long long>(timestamp));
  if (tids.areLost()) return kNotPacked;
  return requestUnifyCpuIOThreadCore(scene, action, cpulevel, iolevel, tids.ids, tids.length, timeout, tid,
                                     timestamp);
}

jint com_tarn_performance_tarnboosterjni_cancelUnifyCpuIOThreadCore(JNIEnv* env, jobject, jboolean cancelcpu,
                                                                    jboolean cancelio, jboolean cancelthread,
                                                                    jintArray bindtids, jint tid,
                                                                    jlong timestamp) {
  const bool cpu = cancelcpu != JNI_FALSE;
  const bool io = cancelio != JNI_FALSE;
  const bool thread = cancelthread != JNI_FALSE;
  const Tids tids(env, bindtids);
  LOG_DEBUG(
      "cancelUnifyCpuIOThreadCore cancelcpu:%d cancelio:%d cancelthread:%d bindtids len::%d tid:%d "
      "timestamp:%lld",
      cpu, io, thread, tids.length, tid, static_cast<long long>(timestamp));
  if (tids.areLost()) return kNotPacked;
  return cancelUnifyCpuIOThreadCore(cpu, io, thread, tids.ids, tids.length, tid, timestamp);
}

void com_tarn_performance_tarnboosterjni_setHCEnable(JNIEnv*, jobject, jboolean enable) {
  const bool on = enable != JNI_FALSE;
  LOG_DEBUG("setEnable: %d", on);
  g_client.setEnable(on);
}

void com_tarn_performance_tarnboosterjni_setRetryConnectInterval(JNIEnv*, jobject, jint seconds) {
  LOG_DEBUG("setRetryConnectInterval: %d", seconds);
  g_client.setRetryConnectInterval(seconds);
}

void com_tarn_performance_tarnboosterjni_setDebug(JNIEnv*, jobject, jboolean on) {
  setDebugLogging(on != JNI_FALSE);
  LOG_DEBUG("setDebug: %d", 1);
}

jint com_tarn_performance_tarnboosterjni_isRunning(JNIEnv*, jobject) {
  return g_client.isRunning() ? 1 : 0;
}

jint com_tarn_performance_tarnboosterjni_startTraceCpuLoad(JNIEnv*, jobject, jint tid, jint periodMs) {
  return startTraceCpuLoad(tid, periodMs);
}

jint com_tarn_performance_tarnboosterjni_stopTraceCpuLoad(JNIEnv*, jobject, jint handle) {
  return stopTraceCpuLoad(handle);
}

jint com_tarn_performance_tarnboosterjni_getTickRate(JNIEnv*, jobject) {
  return tickRate();
}

// ---- The native table ----

#define NATIVE(name, signature)                                             \
  {                                                                         \
    const_cast<char*>("native_" #name), const_cast<char*>(signature),       \
        reinterpret_cast<void*>(com_tarn_performance_tarnboosterjni_##name) \
  }

const JNINativeMethod kNatives[] = {
    NATIVE(testtarnbooster, "()I"),
    NATIVE(initTarnBooster, "(Ljava/lang/String;ILjava/lang/String;)I"),
    NATIVE(checkPermission, "(IIIJ)I"),
    NATIVE(requestCpuHighFreq, "(IJIIIJ)I"),
    NATIVE(cancelCpuHighFreq, "(IJ)I"),
    NATIVE(requestCpuCoreForThread, "(IJ[IIIJ)I"),
    NATIVE(cancelCpuCoreForThread, "([IIJ)I"),
    NATIVE(requestHighIOFreq, "(IJIIIJ)I"),
    NATIVE(cancelHighIOFreq, "(IJ)I"),
    NATIVE(requestScreenResolution, "(ILjava/lang/String;IJ)I"),
    NATIVE(resetScreenResolution, "(IJ)I"),
    NATIVE(registerANRCallback__IJ, "(IJ)I"),  // the Java name really ends in __IJ
    NATIVE(registerBootPreloadResource, "([Ljava/lang/String;IJ)I"),
    NATIVE(terminateApp, "(IJ)I"),
    NATIVE(requestUnifyCpuIOThreadCore, "(IJII[IIIJ)I"),
    NATIVE(cancelUnifyCpuIOThreadCore, "(ZZZ[IIJ)I"),
    NATIVE(setHCEnable, "(Z)V"),
    NATIVE(setRetryConnectInterval, "(I)V"),
    NATIVE(setDebug, "(Z)V"),
    NATIVE(isRunning, "()I"),
    NATIVE(startTraceCpuLoad, "(II)I"),
    NATIVE(stopTraceCpuLoad, "(I)I"),
    NATIVE(getTickRate, "()I"),
};

constexpr char kClassName[] = "com/tarn/performance/TarnBoosterJNI";

static_assert(std::size(kNatives) == 23, "the Java class declares 23 natives");

}  // namespace

int register_com_tarn_performance_TarnBoosterJNI(JNIEnv* env) {
  return jniRegisterNativeMethods(env, kClassName, kNatives, static_cast<int>(std::size(kNatives)));
}

jint JNI_OnLoad(JavaVM* vm, void* /*reserved*/) {
  LOG_DEBUG("VEX com.tarn.performance.TarnBoosterJNI loading JNI\\n");  // a backslash and an n, no line break
  JNIEnv* env = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) {
    LOG_ERROR("VEX com.tarn.performance.TarnBoosterJNI: JNI version mismatch error");
    return -1;
  }
  const int result = register_com_tarn_performance_TarnBoosterJNI(env);
  if (result < 0) {
    LOG_ERROR("VEX com.tarn.performance.TarnBoosterJNI jni registration failure: %d", result);
    return -1;
  }
  g_jvm = vm;
  jclass const found = env->FindClass(kClassName);  // not checked: this class is what loads the library
  g_classUdpEngine = static_cast<jclass>(env->NewGlobalRef(found));
  env->DeleteLocalRef(found);
  return JNI_VERSION_1_6;
}
