// The library's threads: starting those that nobody joins, and what each of them does for itself.
#pragma once

/// Starts `entry(argument)` on a detached thread with default attributes. Returns 0, or an error number when
/// the thread cannot be created (then `argument` stays the caller's).
int startDetachedThread(void* (*entry)(void*), void* argument);

/// Names the calling thread for debuggers, profilers and crash reports: "tarn-" and what it is, at most 15
/// bytes. A name that is longer, or a system without names, changes nothing.
void nameThisThread(const char* name);

/// Keeps SIGPIPE away from the calling thread, for threads that write to sockets with flags 0. The process's
/// disposition of the signal belongs to the application and is not touched.
void blockSigpipe();
