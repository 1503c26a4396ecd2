// The library's log inside a program of this project.
#pragma once

namespace shared {

/// Keeps the library's lines, which are for its developers, off the program's output. Call before any thread
/// of the library runs.
void silenceLibraryLog();

}  // namespace shared
