// 1011: reads files ahead into the page cache.
#pragma once

#include <string>
#include <vector>

#include "service/core/Outcome.h"
#include "service/effects/Process.h"

namespace service {

/// At most this many names of one request are looked at.
constexpr size_t kMaxPreloadFiles = 4096;

/// Asks the kernel to read the files ahead. Takes absolute paths of regular files; anything else (a fifo, a
/// device, a folder) is looked at but never opened. A service that runs as root looks with the requester's
/// eyes (as "nobody" for an unknown one), so that a client can neither warm nor detect a file it may not
/// read itself.
/// requester  null when it is not known
Outcome preloadFiles(const std::vector<std::string>& files, const Process* requester);

}  // namespace service
