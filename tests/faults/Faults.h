// Calls of the C library that fail on command: the n-th one that the library makes.
//
// A program that links Faults.cpp with the linker's --wrap for each call (tests/CMakeLists.txt) has them.
// Nothing fails until a Fault exists, and only on threads that are inside the library: within a scope of
// Inside, or started from one.
#pragma once

#include <string>

/// This thread is inside the library while it lives.
struct Inside {
  Inside();
  ~Inside();
};

/// While it lives, the n-th call of `call` ("new" is the allocation that may fail) fails with `error`. One at
/// a time.
class Fault {
 public:
  Fault(const std::string& call, int error, int n);
  ~Fault();
  /// Whether there is one, and its call was reached.
  static bool happened();
};
