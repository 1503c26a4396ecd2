// The platform's registration helper: from libnativehelper where the build asks for it, else our own of the
// same name.
#pragma once

#include <jni.h>

/// Registers `numMethods` natives on the class of that name. Returns 0 or a negative result, with the Java
/// exception pending that says why. (The platform's own helper may end the process instead.)
extern "C" int jniRegisterNativeMethods(JNIEnv* env, const char* className, const JNINativeMethod* methods,
                                        int numMethods);
