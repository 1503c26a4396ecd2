#include <pthread.h>

#include "Support.h"

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*entry)(void*),
                                     void* with) {
  return g_threadError != 0 ? g_threadError.load() : __real_pthread_create(thread, how, entry, with);
}
