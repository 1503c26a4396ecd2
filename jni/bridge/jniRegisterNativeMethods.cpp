#include "bridge/jniRegisterNativeMethods.h"

int jniRegisterNativeMethods(JNIEnv* env, const char* className, const JNINativeMethod* methods,
                             int numMethods) {
  jclass const found = env->FindClass(className);
  if (found == nullptr) return -1;
  const int result = env->RegisterNatives(found, methods, numMethods);
  env->DeleteLocalRef(found);
  return result;
}
