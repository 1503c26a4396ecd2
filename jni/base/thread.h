// Starting the threads that nobody joins.
#pragma once

/// Starts `entry(argument)` on a detached thread with default attributes. Returns 0, or an error number when
/// the thread cannot be created (then `argument` stays the caller's).
int startDetachedThread(void* (*entry)(void*), void* argument);

/// Keeps SIGPIPE away from the calling thread, for threads that write to sockets with flags 0. The process's
/// disposition of the signal belongs to the application and is not touched.
void blockSigpipe();
