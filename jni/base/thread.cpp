#include "base/thread.h"

#include <pthread.h>
#include <signal.h>

int startDetachedThread(void* (*entry)(void*), void* argument) {
  pthread_t thread{};
  const int error = pthread_create(&thread, nullptr, entry, argument);
  if (error == 0) pthread_detach(thread);
  return error;
}

void nameThisThread(const char* name) {
  pthread_setname_np(pthread_self(), name);
}

void blockSigpipe() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}
