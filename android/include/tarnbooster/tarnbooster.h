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

/* The variables have other names here than in the library's table of symbols (which the strings give), so
 * that they do not meet an application's own TAG or g_jvm. In C one meeting remains: a file that uses one of
 * these and has a static variable of that symbol's name gets its own, silently, since both become one symbol
 * in the assembler. C++ gives statics other symbols. */

/** The log tag, "TARNBOOSTER". */
extern const char* tarnbooster_tag __asm__("TAG");

/** The log sink, __android_log_print at load. Replace it before any thread of the library runs, that is
 * before initTarnBooster. Its arguments are those of __android_log_print: a priority (3 DEBUG, 5 WARN, 6
 * ERROR), the tag, and a format of printf with its arguments, which are gone when it returns.
 *
 * It is called on every thread that calls a native and on the library's own threads, several at once; those
 * of the library are not attached to the virtual machine (but for the callback thread), so it must not call
 * Java unless it attaches and detaches the thread itself. Some lines are written under the library's locks:
 * it must not call back into the library, through Java neither, nor wait for a thread that does. */
extern int (*tarnbooster_log)(int priority, const char* tag, const char* format, ...) __asm__("logFunc")
    __attribute__((format(printf, 3, 4)));

/** The virtual machine that loaded the library, null before that. Read only. */
extern JavaVM* tarnbooster_jvm __asm__("g_jvm");

/** A global reference to com.tarn.performance.TarnBoosterJNI, null before the load. Read only. */
extern jclass tarnbooster_class __asm__("g_classUdpEngine");

/** Registers the 23 natives on com.tarn.performance.TarnBoosterJNI, which the load has done already.
 * Negative on failure, with a Java exception pending. */
int register_com_tarn_performance_TarnBoosterJNI(JNIEnv* env);

/** A copy of a Java string, which must not be null, in Java's modified UTF-8: a character beyond 16 bits is
 * six bytes (two surrogates of three), NUL is the two bytes C0 80. The caller releases it with free(). Null
 * when there is no memory. */
char* jstringToChars(JNIEnv* env, jstring s);

/** A copy of a Java int array, with its number of elements in `length`; null and 0 for a null or empty array,
 * null and that number when there is no memory. The caller releases it with C++'s delete[]. */
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
