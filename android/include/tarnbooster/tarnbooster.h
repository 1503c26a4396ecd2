/* What libtarnbooster.so exports to native code of the application, in C and C++.
 *
 * Applications in Java need none of it: loading the library through com.tarn.performance.TarnBoosterJNI
 * registers the natives. JNI_OnLoad is exported too; <jni.h> declares it, and only the virtual machine calls
 * it.
 *
 * Code that uses the variables is compiled with -fPIC, as all code of shared libraries is. In an executable
 * without it the linker makes copies of them, which the library does not see.
 */
#ifndef TARNBOOSTER_TARNBOOSTER_H
#define TARNBOOSTER_TARNBOOSTER_H

#include <jni.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The log tag, "TARNBOOSTER". */
extern const char* TAG;

/** The log sink, __android_log_print at load. Replace it before any thread of the library runs, with a
 * function that every thread may call. */
extern int (*logFunc)(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/** The virtual machine that loaded the library, null before that. Read only. */
extern JavaVM* g_jvm;

/** A global reference to com.tarn.performance.TarnBoosterJNI, null before the load. Read only. */
extern jclass g_classUdpEngine;

/** Registers the 23 natives on com.tarn.performance.TarnBoosterJNI, which the load has done already.
 * Negative on failure, with a Java exception pending. */
int register_com_tarn_performance_TarnBoosterJNI(JNIEnv* env);

/** A copy of a Java string, which must not be null, in modified UTF-8. The caller releases it with free(). */
char* jstringToChars(JNIEnv* env, jstring s);

/** A copy of a Java int array, with its number of elements in `length`; null and 0 for a null or empty array.
 * The caller releases it with C++'s delete[]. */
#ifdef __cplusplus
int* jintArrayToInts(JNIEnv* env, jintArray a, int& length);
#else
int* jintArrayToInts(JNIEnv* env, jintArray a, int* length);
#endif

/** Calls the static method onData of com.tarn.performance.TarnBoosterJNI with a new array of the `len` bytes
 * at `data`, which is the library's own business. A null `env` is an ERROR line. */
void c2Java_OnData(JNIEnv* env, int32_t type, int64_t timestamp, int32_t status, int32_t funcid, int32_t code,
                   const uint8_t* data, int32_t len);

#ifdef __cplusplus
}
#endif

#endif
