// Failing creations of threads, for the tests that link ThreadFailure.cpp.
#pragma once

#include <atomic>

extern std::atomic<int> g_threadError;  ///< What every creation of a thread fails with, unless it is 0.
