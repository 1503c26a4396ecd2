// The JNI bridge: the load entry, the native table, and the copies of Java arguments.
//
// JNI_OnLoad (declared by jni.h) is called by the VM: it returns 0x10006 (JNI 1.6), or -1 with one ERROR line
// when the VM refuses that version or the registration fails. A native converts its arguments, writes its log
// line and calls the request function of protocol.h or the operation of the client. Natives run on any Java
// thread, several at once.
#pragma once

#include <jni.h>

#include "base/export.h"

extern "C" {

/// The VM that loaded the library; written once by JNI_OnLoad, before any native can run.
extern TARN_EXPORT JavaVM* g_jvm;

/// A global reference to the class com/tarn/performance/TarnBoosterJNI, written once by JNI_OnLoad and never
/// deleted. The name is kept although what it holds is no engine.
extern TARN_EXPORT jclass g_classUdpEngine;

/// Registers the 23 natives. Returns the result of jniRegisterNativeMethods: negative on failure.
TARN_EXPORT int register_com_tarn_performance_TarnBoosterJNI(JNIEnv* env);

/// A copy of a Java string in modified UTF-8. `s` must not be null (not checked). Null, with one ERROR line
/// and no exception pending, when there is no memory. The copy is the caller's, to be released with free();
/// the natives keep theirs for the life of the process.
TARN_EXPORT char* jstringToChars(JNIEnv* env, jstring s);

/// A copy of a Java int array, `length` its number of elements. Null, with length 0, for a null or an empty
/// array; null, with its length, one ERROR line and no exception pending, when there is no memory. The copy
/// is the caller's, to be released with delete[]; the natives keep theirs for the life of the process.
TARN_EXPORT int* jintArrayToInts(JNIEnv* env, jintArray a, int& length);
}
