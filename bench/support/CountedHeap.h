// Counts the heap blocks of the whole program. For the one source file of a benchmark program.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// Calls of malloc() so far, by any thread; operator new calls it too.
inline std::atomic<int64_t> g_blocks{0};

extern "C" void* __libc_malloc(size_t bytes);
// Takes the C library's place.
extern "C" void* malloc(size_t bytes) {
  g_blocks.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(bytes);
}
