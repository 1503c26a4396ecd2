// The bridge's C side against a virtual machine made of function tables: what a real one does not do on
// demand (refuse a version, fail a registration, run out of memory), and the order of the calls it gets.
#include "bridge/com_tarn_performance_TarnBoosterJNI.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>

#include "bridge/C2Java.h"
#include "client/client.h"
#include "faults/Faults.h"
#include "support/LogCapture.h"
#include "support/Support.h"

// The natives keep their copies of arguments, by design.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:jstringToChars\nleak:jintArrayToInts\n";
}

namespace {

using testing::ElementsAre;
using testing::EndsWith;

/// What the virtual machine shall answer.
struct Answers {
  jint getEnv = JNI_OK, registration = 0;
  bool hasOnData = true, hasMemory = true;
  std::vector<jint> ints{};
} g_answers;
std::vector<std::string> g_asked;
std::atomic<int> g_delivered{0};  // the types of the reports, as digits
std::vector<JNINativeMethod> g_natives;
const char* const g_text = "text";
_jclass g_localClass, g_globalClass;
JNINativeInterface_ g_functions{};
JNIInvokeInterface_ g_invocations{};
JNIEnv g_env{&g_functions};
JavaVM g_vm{&g_invocations};

void asked(const std::string& call) {
  g_asked.push_back(call);
}

struct JniBridge : testing::Test {
  JniBridge();
  const LogCapture m_log;
};

JniBridge::JniBridge() {
  g_jvm = nullptr;
  g_classUdpEngine = nullptr;
  g_answers = {};
  g_asked.clear();
  g_invocations.GetEnv = [](JavaVM*, void** out, jint version) {
    EXPECT_EQ(version, 0x10006);
    *out = &g_env;
    return g_answers.getEnv;
  };
  g_functions.FindClass = [](JNIEnv*, const char* name) { return asked(name), &g_localClass; };
  g_invocations.AttachCurrentThread = [](JavaVM*, void** out, void*) -> jint {
    return *out = &g_env, JNI_OK;
  };
  g_functions.RegisterNatives = [](JNIEnv*, jclass, const JNINativeMethod* methods, jint count) {
    g_natives.assign(methods, methods + count);
    return g_answers.registration;
  };
  g_functions.NewGlobalRef = [](JNIEnv*, jobject) -> jobject { return &g_globalClass; };
  g_functions.DeleteLocalRef = [](JNIEnv*, jobject) { asked("DeleteLocalRef"); };
  g_functions.ExceptionClear = [](JNIEnv*) { asked("ExceptionClear"); };
  g_functions.GetStaticMethodID = [](JNIEnv*, jclass, const char*, const char*) {
    return reinterpret_cast<jmethodID>(g_answers.hasOnData ? &g_answers : nullptr);
  };
  g_functions.NewByteArray = [](JNIEnv*, jsize) {
    return reinterpret_cast<jbyteArray>(g_answers.hasMemory ? &g_answers : nullptr);
  };
  g_functions.SetByteArrayRegion = [](JNIEnv*, jbyteArray, jsize, jsize, const jbyte*) {};
  g_functions.CallStaticVoidMethodV = [](JNIEnv*, jclass, jmethodID, va_list arguments) {
    g_delivered = g_delivered * 10 + va_arg(arguments, jint);
  };
  g_functions.GetStringUTFChars = [](JNIEnv*, jstring, jboolean*) {
    return g_answers.hasMemory ? g_text : nullptr;
  };
  g_functions.ReleaseStringUTFChars = [](JNIEnv*, jstring, const char* text) { asked(text); };
  g_functions.GetArrayLength = [](JNIEnv*, jarray) { return static_cast<jsize>(g_answers.ints.size()); };
  g_functions.GetIntArrayElements = [](JNIEnv*, jintArray, jboolean*) {
    return g_answers.hasMemory ? g_answers.ints.data() : nullptr;
  };
  g_functions.EnsureLocalCapacity = [](JNIEnv*, jint) -> jint { return 0; };
  g_functions.GetObjectArrayElement = [](JNIEnv*, jobjectArray, jsize) -> jobject { return nullptr; };
  g_functions.ReleaseIntArrayElements = [](JNIEnv*, jintArray, jint*, jint m) { asked(std::to_string(m)); };
}

template <class... Argument>
jint call(const std::string& name, Argument... arguments) {
  for (const JNINativeMethod& native : g_natives) {
    if (native.name != "native_" + name) continue;
    const auto function = reinterpret_cast<jint (*)(JNIEnv*, jobject, Argument...)>(native.fnPtr);
    return function(&g_env, nullptr, arguments...);
  }
  return 99;
}

TEST_F(JniBridge, ALoadThatFailsLeavesNothingAndSaysWhy) {
  const std::string name = "\"VEX com.tarn.performance.TarnBoosterJNI";
  g_answers.getEnv = JNI_EVERSION;
  EXPECT_EQ(JNI_OnLoad(&g_vm, nullptr), -1);
  EXPECT_EQ(g_asked.size(), 0U);
  EXPECT_EQ(m_log.count(name + ": JNI version mismatch error\""), 1);
#ifndef TARNBOOSTER_PLATFORM_NATIVEHELPER  // whose failure ends the process
  g_answers = {JNI_OK, -5};
  EXPECT_EQ(JNI_OnLoad(&g_vm, nullptr), -1);
  EXPECT_EQ(m_log.count(name + " jni registration failure: -5\""), 1);
#endif
  EXPECT_EQ(g_jvm, nullptr);
  EXPECT_EQ(g_classUdpEngine, nullptr);
}

TEST_F(JniBridge, AReportThatCannotBeDeliveredIsDropped) {
  c2Java_OnData(&g_env, 2, 0, 0, 1010, 7, reinterpret_cast<const uint8_t*>(g_text), 3);
  g_answers.hasMemory = false;
  c2Java_OnData(&g_env, 1, 2, 3, 4, 5, nullptr, 0);
  g_answers.hasOnData = false;
  c2Java_OnData(&g_env, 1, 2, 3, 4, 5, nullptr, 0);
  c2Java_OnData(nullptr, 1, 2, 3, 4, 5, nullptr, 0);
  EXPECT_THAT(g_asked, ElementsAre("DeleteLocalRef", "ExceptionClear", "ExceptionClear"));
  EXPECT_EQ(g_delivered, 2);
  EXPECT_THAT(m_log.linesWith(""),
              ElementsAre(EndsWith("]\"array of 0 bytes not allocated\""), EndsWith("]\"Not init env\"")));
}

TEST_F(JniBridge, ArgumentsAreCopiedAndReleasedAndNoneAreNull) {
  const std::unique_ptr<char, decltype(&free)> text(jstringToChars(&g_env, nullptr), free);
  EXPECT_STREQ(text.get(), g_text);
  EXPECT_NE(text.get(), g_text);
  int length = 99;
  EXPECT_EQ(jintArrayToInts(&g_env, nullptr, length), nullptr);
  EXPECT_EQ(length, 0);
  for (const auto& ints : {std::vector<jint>{}, {5, 7}}) {
    g_answers.ints = ints;
    g_answers.ints.reserve(1);  // an array without elements has a place, too
    const std::unique_ptr<int[]> copy(jintArrayToInts(&g_env, reinterpret_cast<jintArray>(this), length));
    EXPECT_EQ(std::vector<int>(copy.get(), copy.get() + length), ints);
    EXPECT_EQ(copy == nullptr, ints.empty());
  }
  EXPECT_THAT(g_asked, ElementsAre("text", "0", "0"));
}

TEST_F(JniBridge, ARequestForWhichThereIsNoMemoryIsNotSentAndOneLineSaysSo) {
  JNI_OnLoad(&g_vm, nullptr);
  FakeService service(uniqueName());
  ASSERT_TRUE(g_client.init(service.name(), 0, "here", &g_callback) && service.accept());
  g_answers.ints.resize(3000, 101);  // for a message that leaves the stack
  const auto array = reinterpret_cast<jintArray>(this);
  const struct {
    const char* call;
    int most;  // such calls that the request makes
    std::function<jint()> make;
  } requests[] = {
      {"new", 3, [&] { return call("requestCpuCoreForThread", 1, jlong{2}, array, 3, 4, jlong{5}); }},
      {"new", 3, [&] { return call("cancelCpuCoreForThread", array, 1, jlong{2}); }},
      {"new", 3,
       [&] { return call("requestUnifyCpuIOThreadCore", 1, jlong{2}, 3, 4, array, 5, 6, jlong{7}); }},
      {"new", 3, [&] { return call("cancelUnifyCpuIOThreadCore", true, true, true, array, 1, jlong{2}); }},
      {"strdup", 1, [&] { return call("requestScreenResolution", 1, jstring(), 2, jlong{3}); }},
      {"strdup", 2, [&] { return call("registerBootPreloadResource", jobjectArray(), 1, jlong{2}); }},
  };
  for (const auto& request : requests) {
    for (int n = 0; n <= request.most; ++n) {  // the 0th: in the virtual machine
      SCOPED_TRACE(std::to_string(&request - requests) + ", number " + std::to_string(n));
      const LogCapture log;
      g_answers.hasMemory = n > 0;
      const Inside inside;
      const Fault fault(request.call, n);
      EXPECT_EQ(request.make(), -1);
      EXPECT_TRUE(Fault::happened());
      EXPECT_EQ(log.count("6 [") - log.count("genReqPack failed"), 1);
    }
  }
}

TEST_F(JniBridge, TheCallbackThreadIsTriedAgainAndDropsWhatComesWhileDisabled) {
  JNI_OnLoad(&g_vm, nullptr);
  g_delivered = 0;
  const auto init = [] { return call("initTarnBooster", jstring(), 0, jstring()); };
  {
    const Inside inside;
    const Fault fault("pthread_create", 1);
    EXPECT_EQ(init(), 0);
  }
  EXPECT_EQ(m_log.count("6 [com_tarn_performance_TarnBoosterJNI.cpp,startCallbackThread:"), 1);
  g_client.setEnable(false);
  g_functions.DeleteLocalRef = [](JNIEnv*, jobject) {};
  init();
  EXPECT_TRUE(eventually([] { return stateOf("tarn-callback") != 0; }));
  const std::vector<uint8_t> all(Callback::kPendingBytes);
  // The third waits until the second was taken, and by then the first has been dropped.
  for (int i = 0; i < 3; ++i) g_callback.pushCallback(8, 0, 0, 0, 0, all.data(), all.size());
  g_client.setEnable(true);
  g_callback.pushCallback(1, 0, 5, 0, 0, nullptr, 0);
  EXPECT_TRUE(eventually([] { return g_delivered % 10 == 1; }));
  EXPECT_LT(g_delivered, 1000) << "at most the last two were delivered";
}

}  // namespace
