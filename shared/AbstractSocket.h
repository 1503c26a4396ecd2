// Stream sockets with names in the abstract namespace: the listening and the connecting end.
#pragma once

#include <cstddef>
#include <string>

#include "shared/UniqueFd.h"

namespace shared {

/// Longest name in bytes: what a socket address holds behind the zero byte that marks the abstract namespace.
constexpr size_t kMaxNameBytes = 107;

/// A name as people write it, without the '@' that may stand in front.
std::string bareName(const std::string& text);

/// What is wrong with a name to listen on, and what to do about it; empty when nothing is.
std::string nameProblem(const std::string& name);

/// A non-blocking stream socket that listens on the abstract name, or none, with `problem` saying what is
/// wrong and what to do about it.
UniqueFd listenOn(const std::string& name, std::string& problem);

/// A non-blocking stream socket connected to the abstract name, or none with errno set (EAGAIN: the listener
/// has no place for one more just now). Never waits.
UniqueFd connectTo(const std::string& name);

}  // namespace shared
