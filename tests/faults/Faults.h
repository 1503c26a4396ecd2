// Calls of the C library that fail on command: the n-th one that the library makes.
//
// A program that links Faults.cpp with the linker's --wrap for each call (tests/CMakeLists.txt) has them.
// Nothing fails until a Fault exists, and only on threads that are inside the library: within a scope of
// Inside, or started from one.
#pragma once

#include <cstddef>
#include <string>

inline thread_local bool t_inside = false;

/// This thread is inside the library while it lives.
struct Inside {
  Inside() { t_inside = true; }
  ~Inside() { t_inside = false; }
};

/// The length of a push whose copy can fail.
constexpr size_t kPushedBytes = 5000;

/// While it lives, the n-th call of `call` fails with EIO. "new" is an allocation that may fail, "copy"
/// one of a little more than kPushedBytes that throws. One at a time.
struct Fault {
  Fault(const std::string& call, int n);
  ~Fault();
  /// Whether there is one, and its call was reached.
  static bool happened();
};
