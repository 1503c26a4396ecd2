// The library as a virtual machine loads it, with a machine made of function tables, whose own cost is
// nothing.
#pragma once

#include <jni.h>

#include <cstring>
#include <map>
#include <string>

#include "tarnbooster/tarnbooster.h"

/// The natives by name, and what stands in for Java. One object, natives(); it loads the library once.
class Natives {
 public:
  using OnData = void (*)(const jbyte* data, int length);

  /// onLoad  JNI_OnLoad of the library
  explicit Natives(jint (*onLoad)(JavaVM*, void*)) {
    s_invocations.GetEnv = [](JavaVM*, void** env, jint) -> jint { return *env = &s_env, JNI_OK; };
    s_invocations.AttachCurrentThread = [](JavaVM*, void** env, void*) -> jint {
      return *env = &s_env, JNI_OK;
    };
    s_functions.FindClass = [](JNIEnv*, const char*) { return &s_class; };
    s_functions.NewGlobalRef = [](JNIEnv*, jobject) -> jobject { return &s_class; };
    s_functions.DeleteLocalRef = [](JNIEnv*, jobject) {};
    s_functions.RegisterNatives = [](JNIEnv*, jclass, const JNINativeMethod* methods, jint count) -> jint {
      for (int i = 0; i < count; ++i) s_natives[methods[i].name] = methods[i].fnPtr;
      return 0;
    };
    // A text is what a jstring points to; a report's bytes stay where they are.
    s_functions.GetStringUTFChars = [](JNIEnv*, jstring s, jboolean*) {
      return reinterpret_cast<const char*>(s);
    };
    s_functions.ReleaseStringUTFChars = [](JNIEnv*, jstring, const char*) {};
    s_functions.EnsureLocalCapacity = [](JNIEnv*, jint) -> jint { return 0; };
    s_functions.GetStaticMethodID = [](JNIEnv*, jclass, const char*, const char*) {
      return reinterpret_cast<jmethodID>(&s_class);
    };
    s_functions.NewByteArray = [](JNIEnv*, jsize) { return reinterpret_cast<jbyteArray>(&s_class); };
    s_functions.SetByteArrayRegion = [](JNIEnv*, jbyteArray, jsize, jsize length, const jbyte* data) {
      s_data = data;
      s_length = length;
    };
    s_functions.CallStaticVoidMethodV = [](JNIEnv*, jclass, jmethodID, va_list) {
      if (s_onData != nullptr) s_onData(s_data, s_length);
    };
    if (onLoad(&s_vm, nullptr) != JNI_VERSION_1_6) abort();
    if (!s_natives.empty()) m_request = call<Request>("native_requestCpuHighFreq");
  }

  /// Called on the callback thread in onData's place, until it is replaced.
  void onData(OnData call) { s_onData = call; }

  JNIEnv* env() { return &s_env; }
  void init(const std::string& service) {
    call<jint (*)(JNIEnv*, jclass, jstring, jint, jstring)>("native_initTarnBooster")(
        &s_env, &s_class, text(service.c_str()), 0, text("bench"));
    if (call<jint (*)(JNIEnv*, jclass)>("native_isRunning")(&s_env, &s_class) != 1) abort();
  }
  /// The request of every benchmark: 32 bytes of header, 9 of body.
  jint request() const { return m_request(&s_env, &s_class, 3, 5, 2, 1000, 1, 1); }

 private:
  static jstring text(const char* chars) { return reinterpret_cast<jstring>(const_cast<char*>(chars)); }
  template <class Function>
  Function call(const char* name) const {
    return reinterpret_cast<Function>(s_natives.at(name));
  }

  inline static JNINativeInterface_ s_functions{};
  inline static JNIInvokeInterface_ s_invocations{};
  inline static JNIEnv s_env{&s_functions};
  inline static JavaVM s_vm{&s_invocations};
  inline static _jclass s_class;
  inline static std::map<std::string, void*>& s_natives = *new std::map<std::string, void*>;
  inline static const jbyte* s_data = nullptr;  // the callback thread's
  inline static int s_length = 0;
  inline static OnData s_onData = nullptr;

  using Request = jint (*)(JNIEnv*, jclass, jint, jlong, jint, jint, jint, jlong);
  Request m_request = nullptr;
};

#ifndef TARN_BENCH_LOADS  // the program is linked with the library
namespace bench {
inline int quiet(int /*priority*/, const char* /*tag*/, const char* /*format*/, ...) {
  return 0;
}
}  // namespace bench

inline Natives& natives() {
  tarnbooster_log = bench::quiet;
  static auto& all = *new Natives(JNI_OnLoad);
  return all;
}
#endif
