// The service's name in the abstract namespace.
#pragma once

#include <string>

#include "shared/UniqueFd.h"

namespace service {

/// Longest name in bytes: what a socket address holds behind the zero byte that marks the abstract namespace.
constexpr size_t kMaxNameBytes = 107;

/// A non-blocking stream socket that listens on the abstract name, or none, with `problem` saying what is
/// wrong and what to do about it.
shared::UniqueFd listenOn(const std::string& name, std::string& problem);

}  // namespace service
