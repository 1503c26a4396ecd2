// The bridge's C side against a virtual machine made of function tables: what a real one does not do on
// demand (refuse a version, fail a registration, run out of memory), and the order of the calls it gets.
#include "com_tarn_performance_TarnBoosterJNI.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "C2Java.h"
#include "log.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

/// A virtual machine that plays its part and writes down what it is asked. One at a time.
class FakeVm {
 public:
  FakeVm();
  ~FakeVm() {
    logFunc = m_logFunc;
    g_jvm = nullptr;
    g_classUdpEngine = nullptr;
    s_vm = nullptr;
  }

  JavaVM vm{};
  JNIEnv env{};
  jint getEnvResult = JNI_OK;
  jint registerResult = 0;
  bool hasOnData = true;
  bool hasMemory = true;

  std::vector<std::string> calls;
  std::vector<std::string> natives;  // as registered, NAME and SIGNATURE
  std::vector<std::string> log;      // PRIORITY and TEXT
  std::vector<jbyte> array;
  std::string text = "text";
  std::vector<jint> ints;

 private:
  static FakeVm& self() { return *s_vm; }
  static void called(const std::string& call) { self().calls.push_back(call); }
  static int capture(int priority, const char* tag, const char* format, ...)
      __attribute__((format(printf, 3, 4)));

  static FakeVm* s_vm;

  JNINativeInterface_ m_functions{};
  JNIInvokeInterface_ m_invocations{};
  _jclass m_class, m_globalClass;
  int (*const m_logFunc)(int, const char*, const char*, ...) = logFunc;
};

FakeVm* FakeVm::s_vm = nullptr;

int FakeVm::capture(int priority, const char* tag, const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  EXPECT_STREQ(tag, "TARNBOOSTER");
  self().log.push_back(std::to_string(priority) + " " + text);
  return 1;
}

FakeVm::FakeVm() {
  s_vm = this;
  logFunc = capture;
  vm.functions = &m_invocations;
  env.functions = &m_functions;
  m_invocations.GetEnv = [](JavaVM*, void** out, jint version) {
    EXPECT_EQ(version, 0x10006);
    *out = self().getEnvResult == JNI_OK ? &self().env : nullptr;
    return self().getEnvResult;
  };
  m_functions.FindClass = [](JNIEnv*, const char* name) {
    called(std::string("FindClass ") + name);
    return &self().m_class;
  };
  m_functions.RegisterNatives = [](JNIEnv*, jclass, const JNINativeMethod* methods, jint count) {
    for (jint i = 0; i < count; ++i) {
      self().natives.push_back(std::string(methods[i].name) + " " + methods[i].signature);
    }
    return self().registerResult;
  };
  m_functions.NewGlobalRef = [](JNIEnv*, jobject object) -> jobject {
    EXPECT_EQ(object, &self().m_class);
    return &self().m_globalClass;
  };
  m_functions.DeleteLocalRef = [](JNIEnv*, jobject) { called("DeleteLocalRef"); };
  m_functions.GetStaticMethodID = [](JNIEnv*, jclass, const char* name, const char* signature) {
    called(std::string(name) + signature);
    return reinterpret_cast<jmethodID>(self().hasOnData ? &self() : nullptr);
  };
  m_functions.NewByteArray = [](JNIEnv*, jsize length) {
    called("NewByteArray " + std::to_string(length));
    self().array.assign(length, 0);
    return reinterpret_cast<jbyteArray>(self().hasMemory ? &self().array : nullptr);
  };
  m_functions.ExceptionClear = [](JNIEnv*) { called("ExceptionClear"); };
  m_functions.SetByteArrayRegion = [](JNIEnv*, jbyteArray, jsize start, jsize length, const jbyte* bytes) {
    for (jsize i = 0; i < length; ++i) self().array.at(start + i) = bytes[i];
  };
  m_functions.CallStaticVoidMethodV = [](JNIEnv*, jclass, jmethodID, va_list arguments) {
    char text[200];
    const auto type = va_arg(arguments, jint);
    const auto timestamp = static_cast<long long>(va_arg(arguments, jlong));
    const auto status = va_arg(arguments, jint);
    const auto funcid = va_arg(arguments, jint);
    const auto code = va_arg(arguments, jint);
    EXPECT_EQ(va_arg(arguments, jobject), reinterpret_cast<jobject>(&self().array));
    snprintf(text, sizeof(text), "onData %d %lld %d %d %d", type, timestamp, status, funcid, code);
    called(text);
  };
  m_functions.GetStringUTFChars = [](JNIEnv*, jstring, jboolean*) -> const char* {
    return self().text.c_str();
  };
  m_functions.ReleaseStringUTFChars = [](JNIEnv*, jstring, const char* chars) {
    EXPECT_EQ(chars, self().text.c_str());
    called("ReleaseStringUTFChars");
  };
  m_functions.GetArrayLength = [](JNIEnv*, jarray) { return static_cast<jsize>(self().ints.size()); };
  m_functions.GetIntArrayElements = [](JNIEnv*, jintArray, jboolean*) { return self().ints.data(); };
  m_functions.ReleaseIntArrayElements = [](JNIEnv*, jintArray, jint*, jint mode) {
    called("ReleaseIntArrayElements " + std::to_string(mode));
  };
}

TEST(JniBridge, AVmWithoutVersion16IsRefused) {
  FakeVm vm;
  vm.getEnvResult = JNI_EVERSION;
  EXPECT_EQ(JNI_OnLoad(&vm.vm, nullptr), -1);
  EXPECT_EQ(g_jvm, nullptr);
  EXPECT_THAT(vm.natives, IsEmpty());
  EXPECT_THAT(
      vm.log,
      ElementsAre(EndsWith("\"VEX com.tarn.performance.TarnBoosterJNI: JNI version mismatch error\"")));
}

TEST(JniBridge, LoadingRegistersTheWholeTableInOrder) {
  FakeVm vm;
  EXPECT_EQ(JNI_OnLoad(&vm.vm, nullptr), 0x10006);
  EXPECT_EQ(g_jvm, &vm.vm);
  EXPECT_NE(g_classUdpEngine, nullptr);
  EXPECT_EQ(vm.calls.front(), "FindClass com/tarn/performance/TarnBoosterJNI");
  EXPECT_THAT(vm.log, IsEmpty());
  EXPECT_THAT(
      vm.natives,
      ElementsAre(
          "native_testtarnbooster ()I", "native_initTarnBooster (Ljava/lang/String;ILjava/lang/String;)I",
          "native_checkPermission (IIIJ)I", "native_requestCpuHighFreq (IJIIIJ)I",
          "native_cancelCpuHighFreq (IJ)I", "native_requestCpuCoreForThread (IJ[IIIJ)I",
          "native_cancelCpuCoreForThread ([IIJ)I", "native_requestHighIOFreq (IJIIIJ)I",
          "native_cancelHighIOFreq (IJ)I", "native_requestScreenResolution (ILjava/lang/String;IJ)I",
          "native_resetScreenResolution (IJ)I", "native_registerANRCallback__IJ (IJ)I",
          "native_registerBootPreloadResource ([Ljava/lang/String;IJ)I", "native_terminateApp (IJ)I",
          "native_requestUnifyCpuIOThreadCore (IJII[IIIJ)I", "native_cancelUnifyCpuIOThreadCore (ZZZ[IIJ)I",
          "native_setHCEnable (Z)V", "native_setRetryConnectInterval (I)V", "native_setDebug (Z)V",
          "native_isRunning ()I", "native_startTraceCpuLoad (II)I", "native_stopTraceCpuLoad (I)I",
          "native_getTickRate ()I"));
}

TEST(JniBridge, AFailedRegistrationFailsTheLoad) {
#ifdef TARNBOOSTER_PLATFORM_NATIVEHELPER
  GTEST_SKIP() << "the platform's helper ends the process";
#endif
  FakeVm vm;
  vm.registerResult = -5;
  EXPECT_EQ(JNI_OnLoad(&vm.vm, nullptr), -1);
  EXPECT_EQ(g_jvm, nullptr);
  EXPECT_EQ(g_classUdpEngine, nullptr);
  EXPECT_THAT(
      vm.log,
      ElementsAre(EndsWith("\"VEX com.tarn.performance.TarnBoosterJNI jni registration failure: -5\"")));
}

TEST(JniBridge, AReportBecomesOneCallWithItsBytes) {
  FakeVm vm;
  const uint8_t bytes[] = {1, 0, 255};
  c2Java_OnData(&vm.env, 2, 1LL << 40, 3, 1010, -7, bytes, 3);
  EXPECT_THAT(vm.array, ElementsAre(1, 0, -1));
  c2Java_OnData(&vm.env, 1, 5, -20001, 0, 0, nullptr, 0);
  EXPECT_THAT(vm.array, IsEmpty());
  EXPECT_THAT(vm.calls, ElementsAre("onData(IJIII[B)V", "NewByteArray 3", "onData 2 1099511627776 3 1010 -7",
                                    "DeleteLocalRef", "onData(IJIII[B)V", "NewByteArray 0",
                                    "onData 1 5 -20001 0 0", "DeleteLocalRef"));
  EXPECT_THAT(vm.log, IsEmpty());
}

TEST(JniBridge, AReportThatCannotBeDeliveredIsDropped) {
  FakeVm vm;
  vm.hasMemory = false;
  c2Java_OnData(&vm.env, 1, 2, 3, 4, 5, nullptr, 0);
  EXPECT_THAT(vm.calls, ElementsAre("onData(IJIII[B)V", "NewByteArray 0", "ExceptionClear"));
  vm.hasOnData = false;
  vm.calls.clear();
  c2Java_OnData(&vm.env, 1, 2, 3, 4, 5, nullptr, 0);
  EXPECT_THAT(vm.calls, ElementsAre("onData(IJIII[B)V", "ExceptionClear"));
  EXPECT_THAT(vm.log, IsEmpty());
  c2Java_OnData(nullptr, 1, 2, 3, 4, 5, nullptr, 0);
  ASSERT_EQ(vm.log.size(), 1u);
  EXPECT_THAT(vm.log[0], testing::MatchesRegex(R"(6 \[C2Java.cpp,c2Java_OnData:[0-9]+]"Not init env")"));
}

TEST(JniBridge, AStringCopyIsTheCallersOwn) {
  FakeVm vm;
  const std::unique_ptr<char, decltype(&free)> copy(jstringToChars(&vm.env, nullptr), free);
  EXPECT_THAT(vm.calls, ElementsAre("ReleaseStringUTFChars"));
  copy.get()[0] = 'n';
  EXPECT_STREQ(copy.get(), "next");
  EXPECT_EQ(vm.text, "text");
}

TEST(JniBridge, IntArraysAreCopiedAndEmptyOnesAreNull) {
  FakeVm vm;
  auto* const present = reinterpret_cast<jintArray>(&vm);
  int length = 99;
  EXPECT_EQ(jintArrayToInts(&vm.env, nullptr, length), nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_THAT(vm.calls, IsEmpty());

  length = 99;
  EXPECT_EQ(jintArrayToInts(&vm.env, present, length), nullptr);
  EXPECT_EQ(length, 0);

  vm.ints = {5, 7};
  const std::unique_ptr<int[]> copy(jintArrayToInts(&vm.env, present, length));
  ASSERT_EQ(length, 2);
  EXPECT_THAT(std::vector<int>(copy.get(), copy.get() + 2), ElementsAre(5, 7));
  EXPECT_NE(copy.get(), vm.ints.data());
  EXPECT_THAT(vm.calls, ElementsAre("ReleaseIntArrayElements 0", "ReleaseIntArrayElements 0"));
}

}  // namespace
