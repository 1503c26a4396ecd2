#include "faults/Faults.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>

namespace {

std::mutex g_lock;
std::string g_call;             // guarded by g_lock
int g_left = 0;                 // guarded by g_lock: calls up to and with the one that fails
std::atomic<bool> g_on{false};  // whether there is a Fault

/// Whether this call of `call` is the one that fails; errno says with what.
bool fails(const char* call) {
  if (!g_on || !t_inside) return false;
  const std::lock_guard<std::mutex> lock(g_lock);
  if (g_call != call || g_left == 0 || --g_left > 0) return false;
  errno = EIO;
  return true;
}

struct Start {
  void* (*entry)(void*);
  void* argument;
};

void* startInside(void* start) {
  const Start told = *static_cast<Start*>(start);
  delete static_cast<Start*>(start);
  const Inside inside;
  return told.entry(told.argument);
}

}  // namespace

Fault::Fault(const std::string& call, int n) {
  const std::lock_guard<std::mutex> lock(g_lock);
  g_call = call;
  g_left = n;
  g_on = true;
}
Fault::~Fault() {
  g_on = false;
}
bool Fault::happened() {
  const std::lock_guard<std::mutex> lock(g_lock);
  return g_on && g_left == 0;
}

// FAULTY(result, name, failure, (parameters), (arguments)): the call that stands in front of the real one.
#define FAULTY(result, name, failure, parameters, arguments) \
  extern "C" result __real_##name parameters;                \
  extern "C" result __wrap_##name parameters {               \
    return fails(#name) ? failure : __real_##name arguments; \
  }

FAULTY(int, socket, -1, (int a, int b, int c), (a, b, c))
FAULTY(int, connect, -1, (int a, const sockaddr* b, socklen_t c), (a, b, c))
FAULTY(int, bind, -1, (int a, const sockaddr* b, socklen_t c), (a, b, c))
FAULTY(int, listen, -1, (int a, int b), (a, b))
FAULTY(int, accept4, -1, (int a, sockaddr* b, socklen_t* c, int d), (a, b, c, d))
FAULTY(int, pipe2, -1, (int* a, int b), (a, b))
FAULTY(int, select, -1, (int a, fd_set* b, fd_set* c, fd_set* d, timeval* e), (a, b, c, d, e))
FAULTY(ssize_t, send, -1, (int a, const void* b, size_t c, int d), (a, b, c, d))
FAULTY(ssize_t, recvfrom, -1, (int a, void* b, size_t c, int d, sockaddr* e, socklen_t* f),
       (a, b, c, d, e, f))
FAULTY(ssize_t, sendto, -1, (int a, const void* b, size_t c, int d, const sockaddr* e, socklen_t f),
       (a, b, c, d, e, f))
FAULTY(ssize_t, pread, -1, (int a, void* b, size_t c, off_t d), (a, b, c, d))
FAULTY(char*, strdup, nullptr, (const char* a), (a))
FAULTY(void*, mmap, MAP_FAILED, (void* a, size_t b, int c, int d, int e, off_t f), (a, b, c, d, e, f))

// With a variable argument in truth, which is handed on as it comes.
FAULTY(int, fcntl, -1, (int a, int b, long c), (a, b, c))
FAULTY(int, open, -1, (const char* a, int b, unsigned c), (a, b, c))

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*entry)(void*),
                                     void* with) {
  if (fails("pthread_create")) return errno;
  if (!t_inside) return __real_pthread_create(thread, how, entry, with);
  auto* const start = new Start{entry, with};
  const int error = __real_pthread_create(thread, how, startInside, start);
  if (error != 0) delete start;
  return error;
}

// The allocations whose failure the library handles: those that ask for it, and the runtime's copy of a push.
namespace {
__attribute__((noinline)) void* allocate(size_t size, const char* call) {
  return call != nullptr && fails(call) ? nullptr : malloc(size);
}
__attribute__((noinline)) void release(void* memory) {
  free(memory);
}
}  // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, "new");
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, "new");
}
void* operator new(size_t size) {
  void* const memory = allocate(size, size > kPushedBytes && size < kPushedBytes + 64 ? "copy" : nullptr);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](size_t size) {
  return allocate(size, nullptr);
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete[](void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, size_t) noexcept {
  release(memory);
}
void operator delete[](void* memory, size_t) noexcept {
  release(memory);
}
